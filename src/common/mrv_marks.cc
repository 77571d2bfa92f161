#include "common/mrv_marks.h"

unsigned char M_RM = 0xFF;
unsigned char M_FM = 0xFE;
unsigned char M_VM = 0xFD;
unsigned char M_SM = 0xFC;
unsigned char M_TM = 0xFB;
unsigned char M_RMM1 = 0xFE;
unsigned char M_RMM2 = 0xFD;
unsigned char M_NULLVAL = 0x80;
unsigned char M_PRINT_AT = 0xFA;
