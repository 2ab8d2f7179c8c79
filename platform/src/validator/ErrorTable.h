// Message identifier event and English text of each validator code.
#pragma once

#include <string>
#include <vector>

namespace QenValidator {

struct CodeInfo {
  const char* event;     // "required-property-missing"
  const char* text;      // "%s" placeholders, filled by the arguments in order
};

// Null for a code outside the enumeration.
const CodeInfo* InfoOf(int code);

// `text` with each "%s" replaced by the next argument.
std::string FormatText(const char* text, const std::vector<std::string>& args);

}  // namespace QenValidator
