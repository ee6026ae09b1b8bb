// bindings/node/src/node_api_host.h: the Node-API of the host that the module is built for.
#pragma once

#ifdef KESTRUN_OHOS
#include <napi/native_api.h>
#else
#ifndef NAPI_VERSION
#define NAPI_VERSION 8
#endif
#include <node_api.h>
#endif
