// A library file that reaches up into the engine above it.
#include "appdb/catalog.h"
#include "dct/log.h"
#include "offsite/shadow_export.h"
