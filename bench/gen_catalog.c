/* gen_catalog ROOT NDBS ROWS [FIRST]
 *
 * Writes a pool below ROOT for the comparisons: NDBS catalog databases
 * ROOT/databases/application/1/clientNNNN/daily/app.db of ROWS rows each
 * (rows FIRST .. FIRST+ROWS-1 of bench_make_row), in the catalog's exact
 * schema with every row's checksum computed the documented way, plus
 * ROOT/registry.cfg and ROOT/pool.cfg that point kavrel and a shadow context
 * at the tree. Each database is written in one transaction with syncs off:
 * only the generator takes that shortcut, the files are ordinary rollback-
 * journal databases. Ends by writing ROOT/.generated ("NDBS ROWS FIRST"), by
 * which the bench script knows the tree is complete. */
#include "bench_catalog.h"

static int write_text(const char* path, const char* text) {
    FILE* f = fopen(path, "w");
    if (f == NULL) return -1;
    fputs(text, f);
    return fclose(f);
}

int main(int argc, char** argv) {
    char path[4096], text[8192];
    const char* root;
    long ndbs, rows, first = 0, d;
    if (argc < 4) {
        fprintf(stderr, "usage: gen_catalog ROOT NDBS ROWS [FIRST]\n");
        return 2;
    }
    root = argv[1];
    ndbs = atol(argv[2]);
    rows = atol(argv[3]);
    if (argc > 4) first = atol(argv[4]);

    snprintf(path, sizeof(path), "%s/.generated", root);
    remove(path);
    if (bench_make_dirs(root) != 0) {
        fprintf(stderr, "gen_catalog: cannot create %s\n", root);
        return 1;
    }
    snprintf(path, sizeof(path), "%s/registry.cfg", root);
    snprintf(text, sizeof(text), "[Tamberlode]\nconfigfilepath = %s/pool.cfg\n", root);
    if (write_text(path, text) != 0) return 1;
    snprintf(path, sizeof(path), "%s/pool.cfg", root);
    snprintf(text, sizeof(text),
             "[Paths]\nDatabase = %s\nStorageDatabase = %s\n[Storage]\nStorage Path = %s/storage\n", root,
             root, root);
    if (write_text(path, text) != 0) return 1;

    for (d = 0; d < ndbs; ++d) {
        snprintf(path, sizeof(path), "%s/databases/application/%d/client%04ld/%s", root, BENCH_DSID, d,
                 BENCH_POLICY);
        if (bench_make_dirs(path) != 0) {
            fprintf(stderr, "gen_catalog: cannot create %s\n", path);
            return 1;
        }
        strncat(path, "/app.db", sizeof(path) - strlen(path) - 1);
        if (bench_write_database(path, first, rows) != 0) return 1;
    }

    snprintf(path, sizeof(path), "%s/.generated", root);
    snprintf(text, sizeof(text), "%ld %ld %ld\n", ndbs, rows, first);
    return write_text(path, text) == 0 ? 0 : 1;
}
