// The directory of the library's temporary files.
//
// It is the temporary directory of the home (get_temp_path), else "/tmp/",
// kept with one trailing separator in a fixed path variable. Programs that
// make temporary files call settmppath once; the configuration tools use the
// form that reports and does not end the process.
#pragma once

#include <cstddef>

inline constexpr size_t TMP_PATH_SIZE = 100;
extern char M_tmp_path[TMP_PATH_SIZE];

// Sets M_tmp_path; a directory that can't be used ends the process with
// status 1 after its message.
void settmppath();
// The same; a failure is reported and gives -1.
int settmppath_report();
