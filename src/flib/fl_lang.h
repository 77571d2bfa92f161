// The language start-up of an account: the message file of the language and
// the multibyte description.
//
// The language is MRV_LANG when set, else the one that LANGGRP gives for the
// locale in LANG (tried as it stands, then without its ".codeset" or
// "@modifier" part, since locale names in LANGGRP have at most 8
// characters). Its message file "<language>.MSG" and dictionary
// "D_<language>.MSG" are opened from the home's sys directory; a file that
// can't be opened leaves the previous one in force.
#pragma once

#include <string>
#include <vector>

#include "common/mrv_lang.h"

// The language chosen for the running group, or empty after its message.
std::string M_choose_language();
// Chooses the language and opens its files. 0 when a message file is open,
// -1 otherwise. Does nothing (-1) in a process that never read the home.
int M_lang_startup();
// Closes the two files of the language start-up.
void M_lang_close();
// The code sets the start-up read.
const std::vector<CodeSet>& M_code_sets();
