// Localised strings through GNU gettext. The English text is the message id
// and the fallback, so a missing translation shows the English text.
#pragma once

#include <string>

namespace platform {

// Points `domain` at a directory holding LL/LC_MESSAGES/<domain>.mo files.
void bindTextDomain(const std::string& domain, const std::string& localeDirectory);

// Chooses the language of the translations ("de", "en", ...); empty follows the
// process locale.
void setPreferredLanguage(const std::string& language);

// The language of the translations `domain` shows now, as its catalogue names
// it ("de"); "en" when no catalogue is in use.
std::string translationLanguage(const char* domain);

// The translation of `english` in `domain`, or `english` itself.
std::string localizedString(const char* domain, const char* english);

}  // namespace platform
