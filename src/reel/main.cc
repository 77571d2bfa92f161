#include "reel/reel_init.h"

int main(int argc, char** argv) { reel_main(argc, argv); }
