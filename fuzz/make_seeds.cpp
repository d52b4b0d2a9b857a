// Writes the generated seed inputs of the fuzz targets into a corpus root
// (argument 1): checksum files and a journal written by the shadow code
// itself, and a small application database written by the catalog, shrunk
// to 512-byte pages. Run by hand when the formats change; the output is
// checked in under fuzz/corpus/.
#include <stdio.h>

#include <string>

#include "appdb/catalog_application_impl.h"
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "fuzz_common.h"
#include "sqlitedb/connection.h"

namespace {

std::string item_line(const std::string& name, const std::string& bid) {
    return "1|" + name + "|4096|" + bid + "|pol|7|2|3|cli|app-id|obj|1100|2100|100|110|alice|4|desc " +
           name + "|r0|||||||||r9|";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS_ROOT\n", argv[0]);
        return 2;
    }
    fuzzk::quiet();
    const std::string out = argv[1];
    const std::string work = fuzzk::scratch_dir();

    // Checksum files: none, one and three versions ("\1" first: reset when damaged).
    const std::string shadow = work + "/shadow";
    fuzzk::reset_dir(shadow);
    for (int n : {0, 1, 3}) {
        PODBShadow s(nullptr, work + "/real", shadow);
        s.set_db_current_ver_("appdb", static_cast<uint64_t>(n + 4));
        ShadowVersionList* list = new ShadowVersionList;
        for (int i = 0; i < n; ++i) {
            list->push_back(ShadowVersion(shadow, "appdb", static_cast<uint64_t>(n + 4 - i)));
            list->back().db_crc = 1234567u + i;
            list->back().journal_crc = 7654321u + i;
            list->back().journal_lines = static_cast<uint32_t>(i * 2);
        }
        s.reset_db_versions_("appdb", list);
        FUZZ_CHECK(s.persist_chksum("appdb") == CR_STATUS_OK);
        const std::string text = "\1" + fuzzk::read_all(shadow + "/.chksum.appdb");
        fuzzk::write_bytes(out + "/chksum/versions" + std::to_string(n), reinterpret_cast<const uint8_t*>(text.data()),
                           text.size());
    }

    // A journal of two statements as the catalog writes them, with its
    // recorded checksum (first eight bytes: line count 2, then the checksum).
    {
        const std::string lines[2] = {
            "INSERT INTO catalog VALUES (1, 'f1', 'f1', 4096, 'b1', 7, 2, 3, 'a', 'o', 1, 2, 3, 4, 'alice', 4, "
            "'d', 'r0', '', '', '', '', '', '', '', '', 'r9', 99);",
            "DELETE FROM catalog WHERE name = ('f1');"};
        PODBShadow::CRC crc;
        std::string body;
        for (const std::string& l : lines) {
            crc.append(l);
            body += l + "\n";
        }
        uint32_t count = 2, sum = crc.value();
        std::string text(reinterpret_cast<const char*>(&count), 4);
        text.append(reinterpret_cast<const char*>(&sum), 4);
        text += body;
        fuzzk::write_bytes(out + "/journal/two_lines", reinterpret_cast<const uint8_t*>(text.data()), text.size());
        // Same journal with an unrecorded third line (count 0x80000001: checksum
        // taken over the first two lines).
        count = 0x80000001u;
        text.replace(0, 4, reinterpret_cast<const char*>(&count), 4);
        text += "INSERT INTO catalog VALUES (1, 'x');\n";
        fuzzk::write_bytes(out + "/journal/extra_line", reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }

    // A database with three rows, made by the catalog, then shrunk.
    {
        const std::string root = work + "/db/databases";
        {
            appdb::catalog_application_impl app(1, root, 5);
            for (const char* name : {"f1", "f2", "f'3"}) {
                FUZZ_CHECK(app.update_catalog("alice", 4, item_line(name, name[1] == '2' ? "b2" : "b1")) == 0);
            }
        }
        const std::string db = root + "/application/1/cli/pol/app.db";
        {
            sqlitedb::connection h;
            FUZZ_CHECK(h.open(db, sqlitedb::open_mode::create) == CR_STATUS_OK);
            FUZZ_CHECK(h.exec("PRAGMA page_size=512; VACUUM;") == CR_STATUS_OK);
        }
        // The listing target takes its last byte as the choice of pattern and form.
        std::string text = fuzzk::read_all(db);
        fuzzk::write_bytes(out + "/listing/three_rows", reinterpret_cast<const uint8_t*>((text + '\0').data()),
                           text.size() + 1);
        fuzzk::write_bytes(out + "/listing/three_rows_verbose",
                           reinterpret_cast<const uint8_t*>((text + '\x82').data()), text.size() + 1);
    }
    return 0;
}
