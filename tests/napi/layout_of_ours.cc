#include "napi/node_api_abi.h"
#include "tests/napi/layout.h"

std::map<std::string, size_t> LayoutOfOurs() {
#include "tests/napi/layout.inc"
}
