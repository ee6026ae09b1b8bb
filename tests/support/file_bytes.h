// Whole files as strings, and bytes as text that a person can compare.
#pragma once

#include <string>

namespace Kestrun::Testing {

// The bytes of the file; the test fails when it can't be read.
std::string ReadFile(const std::string& path);
// Replaces the file; the test fails when it can't be written.
void WriteFile(const std::string& path, const std::string& bytes);

// "07 00 ff" for the bytes 7, 0 and 255, and back.
std::string ToHex(const std::string& bytes);
std::string FromHex(const std::string& hex);

}  // namespace Kestrun::Testing
