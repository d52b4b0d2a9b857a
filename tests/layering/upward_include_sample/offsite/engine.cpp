// The engine includes what lies below it: allowed.
#include "appdb/catalog.h"
#include "catalog_shadow/ShadowExport.h"
#include "dct/fs.h"
