#include "NT/NT_logerror.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/mrv_msg.h"

void MNT_LogError(const char* api_name) {
  int err = errno;
  if (std::getenv("MRV_DEBUG") == nullptr) return;
  static const char* const kMonths[] = {"Jan", "Feb", "Mar",  "Apr",  "May", "June",
                                        "July", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char when[64];
  std::snprintf(when, sizeof when, "%02d:%02d:%02d %3.3s %02d %4.4d", tm.tm_hour, tm.tm_min,
                tm.tm_sec, kMonths[tm.tm_mon], tm.tm_mday, tm.tm_year + 1900);
  const char* user = "";
  if (passwd* pw = getpwuid(geteuid())) user = pw->pw_name;
  const char* reason = err != 0 ? std::strerror(err)
                                : "MNT_LogError could not find information about the following "
                                  "System Error Code.";
  char text[1024];
  std::snprintf(text, sizeof text,
                "Mrvno:  %d, User: %s, Time: %s\r\nAPI '%s' failed.  Error returned was:\r\n   "
                "(%lu) %s\r\n",
                static_cast<int>(getpid()), user, when, api_name,
                static_cast<unsigned long>(err), reason);
  const char* log = std::getenv("MRV_DEBUG_LOG");
  if (log != nullptr && *log != '\0') {
    if (FILE* f = std::fopen(log, "a")) {
      std::fputs(text, f);
      std::fclose(f);
      return;
    }
  }
  M_errmsg(0, "%s", text);
}
