// Reports a failed platform call. Silent unless MRV_DEBUG is set; then the
// report goes to the file named by MRV_DEBUG_LOG, or to the console.
#pragma once

void MNT_LogError(const char* api_name);
