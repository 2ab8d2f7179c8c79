// Checking the text of the JSON library's structural failures:
//   JSON error:"<the library's source file>":<line>: <failed condition>
#pragma once

#include <functional>
#include <string>

namespace QenTest {

// The source file that the JSON library's own checks of its DOM name.
std::string JsonLibraryFile();

// Expects `f` to throw ConfigStoreException 1082 raised by the JSON library's
// own check `condition`, in exactly the form above.
void ExpectJsonLibraryError(const std::function<void()>& f, const std::string& condition);

}  // namespace QenTest
