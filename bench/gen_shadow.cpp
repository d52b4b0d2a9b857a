// gen_shadow DBROOT CLIENT BASE_ROWS STATEMENTS
//
// Prepares a recovery: the catalog database DBROOT/databases/application/1/
// CLIENT/daily/app.db with BASE_ROWS rows, backed up through the library as
// version 1 of a fresh shadow (DBROOT/pool.cfg, identity created), and a
// journal of STATEMENTS catalog inserts (rows BASE_ROWS onwards, in the
// literal form the shadow-protected catalog journals) written through the
// shadow and flushed once at the end. For the baseline it writes
// DBROOT/replay/CLIENT.sql, the same journal inside BEGIN/COMMIT, and
// DBROOT/replay/CLIENT.base, the path of the version file (the base).
#include <fstream>
#include <mutex>
#include <string>

#include "bench_catalog.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "dct/fs.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: gen_shadow DBROOT CLIENT BASE_ROWS STATEMENTS\n");
        return 2;
    }
    const std::string root = argv[1];
    const std::string client = argv[2];
    const long base_rows = atol(argv[3]);
    const long statements = atol(argv[4]);
    const std::string rel = "/" + std::to_string(BENCH_DSID) + "/" + client;
    const std::string dir = root + "/databases/application" + rel + "/" BENCH_POLICY;

    wa_deletetree(root + "/storage/catalogshadow" + rel);
    if (bench_make_dirs(dir.c_str()) != 0 || bench_make_dirs((root + "/replay").c_str()) != 0 ||
        bench_write_database((dir + "/app.db").c_str(), 0, base_rows) != 0) {
        return 1;
    }
    CatalogShadowIdentity((root + "/storage/catalogshadow").c_str()).create_identity();
    CatalogShadowContext ctx(new ConfigFileShadowProxy(root + "/pool.cfg", root), new CatalogDirectoryLock());
    if (ctx.init() != CR_STATUS_OK || ctx.backup(dir, "appdb") != CR_STATUS_OK) {
        fprintf(stderr, "gen_shadow: first backup of %s failed\n", dir.c_str());
        return 1;
    }
    boost::shared_ptr<PODBShadow> shadow = ctx.pool->get(dir);
    for (long i = base_rows; i < base_rows + statements; ++i) {
        bench_row r;
        bench_make_row(i, &r);
        char* sql = sqlite3_mprintf(
            BENCH_INSERT_LITERAL_FORMAT, r.version, r.file_name, r.file_name, (unsigned long long)r.file_len,
            r.backup_id, r.policy_type, r.schedule_type, r.frag_nums, r.app_id, r.data_object,
            (unsigned long long)r.app_expire_time, (unsigned long long)r.orvo_expire_time,
            (unsigned long long)r.backup_start_time, (unsigned long long)r.backup_stop_time, r.owner, r.owner_role,
            r.description, r.reserver[0], r.reserver[1], r.reserver[2], r.reserver[3], r.reserver[4], r.reserver[5],
            r.reserver[6], r.reserver[7], r.reserver[8], r.reserver[9], bench_row_crc(&r));
        const cr_status_t status = shadow->write_journal("appdb", sql);
        sqlite3_free(sql);
        if (status != CR_STATUS_OK) {
            fprintf(stderr, "gen_shadow: journal write failed\n");
            return 1;
        }
    }
    if (shadow->flush_journal("appdb") != CR_STATUS_OK) return 1;

    std::string base, journal;
    {
        std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
        ShadowVersionListPtr versions = shadow->get_db_versions_("appdb");
        if (versions->size() != 1) return 1;
        base = versions->front().db_path;
        journal = versions->front().journal_path;
    }
    std::ifstream in(journal, std::ios::binary);
    std::ofstream sql(root + "/replay/" + client + ".sql", std::ios::binary);
    sql << "BEGIN;\n" << in.rdbuf() << "COMMIT;\n";
    std::ofstream(root + "/replay/" + client + ".base") << base << "\n";
    return sql ? 0 : 1;
}
