// tests/napi/layout.h: what two sets of declarations of Node-API say about its binary interface.
#pragma once

#include <cstddef>
#include <map>
#include <string>

// Sizes, offsets and values by name.
std::map<std::string, size_t> LayoutOfOurs();
std::map<std::string, size_t> LayoutOfNode();
