// PODBShadow: appending statements to the active journal, one append for
// all of them (a group of changes committed together journals its lines in
// one write, then one sync in flush_journal).
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/log.h"

cr_status_t PODBShadow::write_journal_lines(const std::string& type, const std::vector<std::string>& statements) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    try {
        TypeState& s = state_(type);
        for (const std::string& statement : statements) __TraceA("Write DB operation journal %s.", statement.c_str());
        if (s.versions->empty()) {
            for (size_t i = 0; i < statements.size(); ++i) {
                InfoA(CR_STATUS_OK, "Can't write %s operation journal since there's no active shadow.", type.c_str());
            }
            return CR_STATUS_OK;
        }
        ShadowVersion& newest = s.versions->front();
        if (!s.journal) {
            cr_status_t status = open_active_journal_(type, newest);
            if (status != CR_STATUS_OK) return status;
        }
        size_t length = 0;
        for (const std::string& statement : statements) length += statement.size() + 2;
        std::string text;
        text.reserve(length);
        for (const std::string& statement : statements) {
            text += statement;
            text += ";\n";
        }
        if (s.journal->append(text) != 0) {
            for (const std::string& statement : statements) {
                ErrorA(CR_STATUS_IO, "failed to write \"%s\" to journal file", statement.c_str());
            }
            // The stream took back the torn part; the lines before it stay,
            // for their changes are in the database.
            s.journal.reset();
            return CR_STATUS_IO;
        }
        // Count the lines as check_crc_journal reads them back, without
        // their "\n": a statement that holds a newline spans several lines of
        // the file.
        CRC crc(newest.journal_crc);
        size_t begin = 0;
        while (begin < text.size()) {
            const size_t end = text.find('\n', begin);
            crc.append(text.data() + begin, end - begin);
            newest.journal_lines += 1;
            begin = end + 1;
        }
        newest.journal_crc = crc.value();
        return CR_STATUS_OK;
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "write_journal", e);
        return CR_STATUS_FAILED;
    }
}
