#include "dct/podb_names.h"

#include "dct/pool_layout.h"

const char* const SQLitePODB::dbfilename = dct::pool_layout::kPoDbFile;
const char* const SQLiteULDB::dbfilename = dct::pool_layout::kUlDbFile;
