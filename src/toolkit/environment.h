// The process environment, read without a length limit. A file of its own so that a small library (a
// companion) can use it without bringing the rest of the toolkit's imports along.
#pragma once

#include <string>

namespace qv {

// The value of environment variable NAME, of any length, in value; false (value empty) when it is not set.
bool ReadEnvironment(const wchar_t* name, std::wstring& value);

} // namespace qv
