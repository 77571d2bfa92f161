// The marks in force in the system. The defaults are the classic five marks;
// an installation's configuration may move them.
#pragma once

#include <cstdint>

extern "C" {
extern unsigned char M_RM;  // record mark
extern unsigned char M_FM;  // field mark
extern unsigned char M_VM;  // value mark
extern unsigned char M_SM;  // sub-value mark
extern unsigned char M_TM;  // text mark
extern unsigned char M_RMM1;
extern unsigned char M_RMM2;
extern unsigned char M_NULLVAL;
extern unsigned char M_PRINT_AT;
}

// The tape's marks never change.
inline constexpr unsigned char TAPE_RM = 0xFF;
inline constexpr unsigned char TAPE_FM = 0xFE;
inline constexpr unsigned char TAPE_VM = 0xFD;
inline constexpr unsigned char TAPE_SM = 0xFC;
inline constexpr unsigned char TAPE_TM = 0xFB;
