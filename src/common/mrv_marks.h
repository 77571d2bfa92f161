// The marks in force in the system, and the language groups that fix them.
//
// A language group is three byte values, written "%u/%u/%u": the record mark,
// the print-at character and the null value. The other marks count down from
// the record mark: field mark one below, value mark two below, and so on to
// M_RMM1 six below. The default group is 255/192/129.
//
// LANGGRP, in the sys directory of the home, lists the groups an
// installation knows and, for each, its languages and their locales:
//   # comment
//   255/192/129
//   ENGLISH  C  en_US
//   END
// A language name has at most 15 characters, a locale at most 8.
#pragma once

#include <cstdint>
#include <string>

extern "C" {
extern unsigned char M_RM;  // record mark
extern unsigned char M_FM;  // field mark
extern unsigned char M_VM;  // value mark
extern unsigned char M_SM;  // sub-value mark
extern unsigned char M_TM;  // text mark
extern unsigned char M_RMM1;
extern unsigned char M_RMM2;
extern unsigned char M_NULLVAL;
extern char M_nullval[2];  // the null value as a one-character text
extern unsigned char M_PRINT_AT;
}

inline constexpr unsigned DEFAULT_RECORD_MARK = 255;
inline constexpr unsigned DEFAULT_PRINT_AT = 192;
inline constexpr unsigned DEFAULT_NULL_VALUE = 129;

// The running group as files record it in their headers.
extern uint8_t M_langgrp[3];
inline constexpr uint8_t DEFAULT_LANGGRP[3] = {DEFAULT_RECORD_MARK, DEFAULT_PRINT_AT, DEFAULT_NULL_VALUE};

// NULL_FLAG of the configuration: null handling on (1) or off (0).
extern int32_t M_null_flag;
// On when the process runs without a locale: letters are then strictly A-Z
// and a-z.
extern int32_t M_locale_unset;

// The tape's marks never change.
inline constexpr unsigned char TAPE_RM = 0xFF;
inline constexpr unsigned char TAPE_FM = 0xFE;
inline constexpr unsigned char TAPE_VM = 0xFD;
inline constexpr unsigned char TAPE_SM = 0xFC;
inline constexpr unsigned char TAPE_TM = 0xFB;

void M_set_marks(unsigned record_mark, unsigned print_at, unsigned null_value);
// Whether a group can serve: a record mark above 6, the marks from the record
// mark down to six below it, the print-at value and the null value all
// outside the printable range 32..126, print-at and null value apart from
// the marks and from each other.
bool langgrp_valid(int record_mark, int print_at, int null_value);
// The running group as text.
std::string M_langgrp_text();

// The marks and NULL_FLAG straight from mrvconfig, for a process without
// shared memory. A group that is not valid leaves the marks as they are.
// -1 when the file can't be opened.
int read_config_marks();

enum LanggrpCheck { LANGGRP_HAS_GROUP = 0, LANGGRP_HAS_LOCALE = 1, LANGGRP_HAS_LANGUAGE = 2 };
// 1 when the group (null: the running one) is in LANGGRP (mode 0), has
// `name` as a locale (1) or as a language (2); else 0.
int langgrp_check(int mode, const char* group_text, const char* name);

enum LanggrpFind { LANGGRP_LANGUAGE_OF_LOCALE = 0, LANGGRP_LOCALE_OF_LANGUAGE = 1 };
// The language of a locale, or the first locale of a language, in the
// group; -1 when there is none.
int langgrp_find(int mode, const char* group_text, const char* name, std::string* result);
// The listing form: every section's languages and locales.
void langgrp_list(const char* group_text);
// "<MRVHOME>sys/LANGGRP".
std::string langgrp_path();
