#include "module/platform/Localization.h"

#include <libintl.h>

#include <cctype>
#include <clocale>
#include <cstdlib>
#include <cstring>

extern "C" int _nl_msg_cat_cntr;  // GNU gettext: bumping it drops cached translations

namespace platform {

void bindTextDomain(const std::string& domain, const std::string& localeDirectory) {
  bindtextdomain(domain.c_str(), localeDirectory.c_str());
  bind_textdomain_codeset(domain.c_str(), "UTF-8");
}

void setPreferredLanguage(const std::string& language) {
  if (language.empty()) {
    unsetenv("LANGUAGE");
  } else {
    setenv("LANGUAGE", language.c_str(), 1);
    // gettext ignores LANGUAGE under the plain "C" locale; C.UTF-8 behaves the
    // same otherwise and lets the choice through.
    const char* current = std::setlocale(LC_MESSAGES, nullptr);
    if (!current || std::strcmp(current, "C") == 0 || std::strcmp(current, "POSIX") == 0)
      std::setlocale(LC_MESSAGES, "C.UTF-8");
  }
  ++_nl_msg_cat_cntr;
}

std::string translationLanguage(const char* domain) {
  // gettext answers the empty message id with the catalogue's header.
  const std::string header = dgettext(domain, "");
  const auto at = header.find("Language: ");
  if (at == std::string::npos) return "en";
  const auto start = at + 10;
  const auto end = header.find_first_of("\r\n", start);
  std::string language = header.substr(start, end == std::string::npos ? std::string::npos : end - start);
  for (char c : language)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') return "en";
  return language.empty() ? "en" : language;
}

std::string localizedString(const char* domain, const char* english) {
  if (!english || !*english) return "";  // gettext("") answers the catalogue header
  return dgettext(domain, english);
}

}  // namespace platform
