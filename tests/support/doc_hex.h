// The pages of docs/internals/format: the bytes that they show,
// so that a test can hold them against a real file.
#pragma once

#include <string>

namespace Kestrun::Testing {

// The bytes of the code block that begins with the line "```hex TITLE" on the page of that path. Each of its
// lines is an offset in hexadecimal, a colon, and the bytes there; they must follow each other without gaps,
// except where a line "*" stands for zeros up to the next offset.
// The test fails when there is no such block.
std::string ReadDocHex(const std::string& pagePath, const std::string& title);

// Such a block's lines, for a person who has to put one into a page.
std::string ToHexBlock(const std::string& bytes);

}  // namespace Kestrun::Testing
