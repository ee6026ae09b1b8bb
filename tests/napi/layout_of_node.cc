#include <node_api.h>

#include "tests/napi/layout.h"

std::map<std::string, size_t> LayoutOfNode() {
#include "tests/napi/layout.inc"
}
