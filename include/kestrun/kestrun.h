// include/kestrun/kestrun.h: everything that the library offers.
#pragma once

#include "kestrun/data_entry.h"
#include "kestrun/export.h"
#include "kestrun/key.h"
#include "kestrun/lsdb.h"
#include "kestrun/record.h"
#include "kestrun/record_meta.h"
#include "kestrun/series.h"
#include "kestrun/status.h"
#include "kestrun/value.h"
#include "kestrun/version.h"
