// kavrel: read-only listing of the application catalog of a storage pool.
//
// Finds the pool's CR configuration file through the registry file, takes the
// database root from it (or from -dbpath), walks the tree below the root and
// prints the items of every catalog directory whose backup id matches a
// pattern. Exit status 0 after a listing, whatever it met on the way (that is
// logged); 255 for a usage error or a missing CR configuration file.
#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "appdb/catalog_listing.h"
#include "appdb/kavrel_config.h"
#include "dct/log.h"
#include "dct/status.h"

namespace {

// Allocator settings for the listing (see main): blocks up to 16 MiB come
// from the heap, and up to 32 MiB of free heap is kept.
const int kListMmapThreshold = 16 << 20;
const int kListTrimThreshold = 32 << 20;

// Testing knob: the bytes of a catalog's printed items held in memory before
// they go to a temporary file (a positive decimal number; anything else keeps
// the default).
const char kListBufferEnv[] = "KAVREL_LIST_BUFFER_BYTES";

size_t list_memory_limit() {
    const char* text = getenv(kListBufferEnv);
    if (text == nullptr || *text < '0' || *text > '9') return appdb::list_default_memory_limit();
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value == 0) return appdb::list_default_memory_limit();
    return static_cast<size_t>(value);
}

void usage() {
    puts("Query application catalog database.");
    puts("Usage:\tkavrel [-listall] [-listbybackupid bid] [-dbpath path] [-v] [-h]");
    puts("Example:");
    puts("\tkavrel -listall");
    puts("\tkavrel -listbybackupid backupid");
    puts("\tkavrel -h\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc <= 1) {
        usage();
        return -1;
    }

    // The configuration is located before any option is looked at: without
    // it the tool does nothing at all, not even print its usage.
    std::string cr_config;
    if (appdb::locate_cr_config(appdb::registry_path(""), &cr_config) != CR_STATUS_OK) return -1;
    dct::configure_log_level(cr_config);
    std::string root = appdb::read_database_root(cr_config);

    bool listing = false;
    bool verbose = false;
    std::string pattern;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "-listall") == 0) {
            listing = true;
            pattern = "*";
        } else if (strcmp(arg, "-listbybackupid") == 0) {
            if (i + 1 >= argc) {
                usage();
                return -1;
            }
            listing = true;
            pattern = argv[++i];
        } else if (strcmp(arg, "-dbpath") == 0) {
            if (i + 1 >= argc) {
                usage();
                return -1;
            }
            root = argv[++i];
        } else if (strcmp(arg, "-v") == 0) {
            verbose = true;
        } else {
            usage();
            return -1;
        }
    }
    if (!listing) {
        usage();
        return -1;
    }

    // Exactly one trailing "/" goes, so "/" itself becomes the empty root.
    if (!root.empty() && root.back() == '/') root.pop_back();

    // Every catalog opens its database and fills the output buffer, then
    // frees both before the next one. Keep freed memory in the process for
    // the next catalog: handed back to the system after every one, it came
    // back as fresh pages to be faulted in and cleared. The buffer bounds the
    // peak, whatever the size of a catalog.
    mallopt(M_MMAP_THRESHOLD, kListMmapThreshold);
    mallopt(M_TRIM_THRESHOLD, kListTrimThreshold);

    appdb::list_catalogs(root, pattern, verbose, list_memory_limit());
    return 0;
}
