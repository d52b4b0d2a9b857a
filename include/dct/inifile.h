// Configuration reader for ini files.
//
// Files hold "[Section]" headers and "key = value" lines; comments start with ';'
// or '#'; keys may contain blanks ("Storage Path"); surrounding blanks are
// trimmed; section and key names compare case-insensitively; the first matching
// key of the first matching section wins. A ';' after a blank starts a remark.
// Lines are read whole, whatever their length. A missing or unreadable file
// reads as an empty one. Nothing throws.
//
// Return values: 0 when the key was found and its value used;
// CR_STATUS_NOT_FOUND (72) when the file, section or key is missing (the default
// is stored when one is given); CR_STATUS_FAILED (4) for a value that is not of
// the requested kind, a value the caller cannot take whole, or a line that
// cannot be read (the default is stored; each of these is logged once, naming
// the file and line), or a bad argument.
#ifndef DCT_INIFILE_H_
#define DCT_INIFILE_H_

#include <stddef.h>
#include <stdint.h>

#include "dct/status.h"

// Text value. `buf` receives the whole value, NUL-terminated; a value of
// `capacity` characters or more, or one holding a NUL byte, is never cut but
// refused with CR_STATUS_FAILED (the default is stored, cut to fit).
// `defval` may be null: then a missing key leaves "" in `buf`. A present but
// empty value yields "" and 0.
cr_status_t InifileGetValueA(const char* file, const char* section, const char* key,
                             const char* defval, char* buf, size_t capacity);

// Path value: the same as InifileGetValueA (kept apart so that callers say what
// they read).
cr_status_t InifileGetPathA(const char* file, const char* section, const char* key,
                            const char* defval, char* buf, size_t capacity);

// Boolean: 1/0, true/false, yes/no, on/off in any letter case.
cr_status_t InifileGetBooleanA(const char* file, const char* section, const char* key,
                               bool defval, bool* out);

// Unsigned decimal number (no sign, no suffix).
cr_status_t InifileGetUIntegerA(const char* file, const char* section, const char* key,
                                unsigned long defval, unsigned long* out);

// Size: decimal number with an optional K, M or G suffix (powers of 1024, any case).
cr_status_t InifileGetSizeA(const char* file, const char* section, const char* key,
                            uint64_t defval, uint64_t* out);

#endif  // DCT_INIFILE_H_
