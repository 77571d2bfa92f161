// The command line.
#pragma once

// Option letters, both cases of each; ":" marks a letter that takes an
// argument, glued ("-U3") or as the next word ("-U 3").
inline constexpr char REEL_OPTSTRING[] = "DdEeOoSsA:a:B:b:C:c:G:g:H:h:K:k:L:l:M:m:R:r:T:t:U:u:X:x:";

// The tool's own option scanner. Only the second character of a word is the
// letter ("-DO" is "-D"); "--" ends the options; a lone "-" is an illegal
// option. Returns the letter, '?' (63) on a fault, -1 at the end.
extern int reel_optind;
extern const char* reel_optarg;
int reel_getopt(int argc, char** argv, const char* optstring);

// Fills the run settings from the command line, or ends the run with the
// option's message and the usage text.
void reel_parse_options(int argc, char** argv);
