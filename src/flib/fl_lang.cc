#include "flib/fl_lang.h"

#include <cstdlib>
#include <memory>

#include "common/fl_errout.h"
#include "common/mrv_marks.h"
#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"
#include "common/readroot.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"

namespace {

std::unique_ptr<REL_TYPE> g_messages;
std::unique_ptr<REL_TYPE> g_message_dict;
std::vector<CodeSet> g_code_sets;

// The locale without its ".codeset" and "@modifier" parts.
std::string bare_locale(const std::string& locale) { return locale.substr(0, locale.find_first_of(".@")); }

std::unique_ptr<REL_TYPE> open_in_sys(const std::string& name) {
  auto rel = std::make_unique<REL_TYPE>();
  std::string path = mrv_home_dir() + "sys/" + name;
  if (M_openfile(rel.get(), path.c_str(), OpenMode::Read) != 1) return nullptr;
  return rel;
}

}  // namespace

std::string M_choose_language() {
  std::string group = M_langgrp_text();
  if (const char* lang = std::getenv("MRV_LANG"); lang != nullptr && *lang != '\0') {
    if (langgrp_check(LANGGRP_HAS_LANGUAGE, group.c_str(), lang) != 1) {
      M_msgno_out(MRV_MSG_NOT_A_LANGUAGE, "%s", lang);
      return {};
    }
    return lang;
  }
  const char* env = std::getenv("LANG");
  std::string locale = env != nullptr ? env : "";
  std::string language;
  if (langgrp_find(LANGGRP_LANGUAGE_OF_LOCALE, group.c_str(), locale.c_str(), &language) == 0) return language;
  if (bare_locale(locale) != locale &&
      langgrp_find(LANGGRP_LANGUAGE_OF_LOCALE, group.c_str(), bare_locale(locale).c_str(), &language) == 0)
    return language;
  M_errmsg(0, "Can't get mrvlang from LANGGRP using locale %s", locale.c_str());
  return {};
}

int M_lang_startup() {
  if (mrv_home_dir().empty()) return -1;
  std::string language = M_choose_language();
  if (language.empty()) return -1;
  std::string file = language + MESSAGE_FILE_SUFFIX;
  auto messages = open_in_sys(file);
  auto dict = messages != nullptr ? open_in_sys("D_" + file) : nullptr;
  int result = -1;
  if (messages != nullptr && dict != nullptr) {
    M_lang_close();
    g_messages = std::move(messages);
    g_message_dict = std::move(dict);
    result = 0;
  } else {
    if (messages != nullptr) M_closefile(messages.get());
  }
  std::vector<CodeSet> sets;
  if (read_multibyte_config(mrv_home_dir(), language, &sets) == 0) g_code_sets = std::move(sets);
  return result;
}

void M_lang_close() {
  if (g_messages != nullptr) M_closefile(g_messages.get());
  if (g_message_dict != nullptr) M_closefile(g_message_dict.get());
  g_messages.reset();
  g_message_dict.reset();
}

const std::vector<CodeSet>& M_code_sets() { return g_code_sets; }
