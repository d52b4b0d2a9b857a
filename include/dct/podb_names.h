// File names of the pool's own PO and UL catalog databases.
#ifndef DCT_PODB_NAMES_H_
#define DCT_PODB_NAMES_H_

struct SQLitePODB {
    static const char* const dbfilename;  // "po.db"
};

struct SQLiteULDB {
    static const char* const dbfilename;  // "ul.db"
};

#endif  // DCT_PODB_NAMES_H_
