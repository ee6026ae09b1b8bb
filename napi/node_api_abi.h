// napi/node_api_abi.h: the part of the Node-API C interface that the host module uses.
//
// Node-API is a stable binary interface, documented by its hosts. It is declared here rather than taken from
// a host's headers so that the library builds where no host is installed. The names are the documented ones;
// a test compares every size, offset and value with a host's own header.
//
// Enumerations have a fixed underlying type of C's size, so that a host may hand out values that a later
// version of Node-API adds.
#pragma once

#include <cstddef>

extern "C" {

struct napi_env__;
struct napi_value__;
struct napi_callback_info__;
typedef struct napi_env__* napi_env;
typedef struct napi_value__* napi_value;
typedef struct napi_callback_info__* napi_callback_info;

enum napi_status : int { napi_ok = 0 };
enum napi_valuetype : int { napi_undefined = 0 };
enum napi_property_attributes : int { napi_default = 0 };

typedef napi_value (*napi_callback)(napi_env env, napi_callback_info info);
typedef napi_value (*napi_addon_register_func)(napi_env env, napi_value exports);

struct napi_property_descriptor {
  const char* utf8name;
  napi_value name;
  napi_callback method;
  napi_callback getter;
  napi_callback setter;
  napi_value value;
  napi_property_attributes attributes;
  void* data;
};

struct napi_module {
  int nm_version;
  unsigned int nm_flags;
  const char* nm_filename;
  napi_addon_register_func nm_register_func;
  const char* nm_modname;
  void* nm_priv;
  void* reserved[4];
};

// Provided by the host. Every use must allow for a null address: a process without a host has none of them.
void napi_module_register(napi_module* module);
napi_status napi_define_properties(napi_env env, napi_value object, size_t count,
                                   const napi_property_descriptor* properties);
napi_status napi_get_cb_info(napi_env env, napi_callback_info info, size_t* argc, napi_value* argv,
                             napi_value* receiver, void** data);
napi_status napi_typeof(napi_env env, napi_value value, napi_valuetype* type);
napi_status napi_get_value_double(napi_env env, napi_value value, double* number);
napi_status napi_create_double(napi_env env, double number, napi_value* value);

}  // extern "C"

#pragma weak napi_module_register
#pragma weak napi_define_properties
#pragma weak napi_get_cb_info
#pragma weak napi_typeof
#pragma weak napi_get_value_double
#pragma weak napi_create_double
