#include "dct/podb_names.h"

const char* const SQLitePODB::dbfilename = "po.db";
const char* const SQLiteULDB::dbfilename = "ul.db";
