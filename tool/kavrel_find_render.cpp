// How kavrel-find prints: an item or a summary row as a line, a CSV row, a
// JSON line or a --format template.
#include "tool/kavrel_find_render.h"

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "offsite/json_text.h"
#include "offsite/shadow_model.h"

namespace kfind {

const char kProgram[] = "kavrel-find";

using ktool::json;

namespace {

// The text of one column of an item, as CSV cells, --format and the sort
// take it: numbers in decimal (times signed), text as stored, the "_utc"
// twins in ISO 8601.
void append_cell(std::string& out, const item_column& c, uint32_t dsid,
                 const appdb::app_catalog_item& item) {
    if (c.kind == column_kind::dsid) {
        out += std::to_string(dsid);
        return;
    }
    const appdb::catalog_field& f = *c.field;
    if (c.kind == column_kind::utc) {
        out += ktool::iso8601_utc(item.*f.i64);
        return;
    }
    switch (f.kind) {
        case appdb::field_kind::u32:
        case appdb::field_kind::role: out += std::to_string(item.*f.u32); break;
        case appdb::field_kind::u64: out += std::to_string(item.*f.u64); break;
        case appdb::field_kind::time: out += std::to_string(item.*f.i64); break;
        case appdb::field_kind::text: out += item.*f.text; break;
    }
}

json item_json(uint32_t dsid, const appdb::app_catalog_item& item) {
    json o = json::object();
    for (const item_column& c : item_columns()) {
        if (c.kind == column_kind::dsid) {
            o[c.name] = dsid;
            continue;
        }
        const appdb::catalog_field& f = *c.field;
        if (c.kind == column_kind::utc) {
            o[c.name] = ktool::iso8601_utc(item.*f.i64);
            continue;
        }
        switch (f.kind) {
            case appdb::field_kind::u32:
            case appdb::field_kind::role: o[c.name] = item.*f.u32; break;
            case appdb::field_kind::u64: o[c.name] = item.*f.u64; break;
            case appdb::field_kind::time: o[c.name] = item.*f.i64; break;
            case appdb::field_kind::text: o[c.name] = ktool::json_text(item.*f.text); break;
        }
    }
    return o;
}

// RFC 4180: a cell holding a comma, a quote or a line break is quoted, its
// quotes doubled.
void append_csv_cell(std::string& out, const std::string& cell) {
    if (cell.find_first_of(",\"\r\n") == std::string::npos) {
        out += cell;
        return;
    }
    out += '"';
    for (char ch : cell) {
        if (ch == '"') out += '"';
        out += ch;
    }
    out += '"';
}

// A --format template cut into literal text and placeholders.
struct template_piece {
    std::string literal;
    std::string field;  // empty for a literal
};

std::vector<template_piece> compile_template(const std::string& t) {
    std::vector<template_piece> pieces;
    std::string literal;
    for (size_t i = 0; i < t.size(); ++i) {
        if ((t[i] == '{' || t[i] == '}') && i + 1 < t.size() && t[i + 1] == t[i]) {
            literal += t[i++];
        } else if (t[i] == '{') {
            const size_t close = t.find('}', i);  // checked when the options were read
            if (!literal.empty()) pieces.push_back(template_piece{literal, ""});
            literal.clear();
            pieces.push_back(template_piece{"", t.substr(i + 1, close - i - 1)});
            i = close;
        } else {
            literal += t[i];
        }
    }
    if (!literal.empty()) pieces.push_back(template_piece{literal, ""});
    return pieces;
}

// The value of kSummaryColumns[k]: null where there is none (no item, no
// expiry).
json summary_value(const appdb::find_summary& row, size_t k) {
    const bool any = row.items > 0;
    switch (k) {
        case 0: return row.dsid;
        case 1: return ktool::json_text(row.client);
        case 2: return ktool::json_text(row.policy);
        case 3: return row.items;
        case 4: return row.file_len;
        case 5: return any ? json(row.oldest) : json();
        case 6: return any ? json(ktool::iso8601_utc(row.oldest)) : json();
        case 7: return any ? json(row.newest) : json();
        case 8: return any ? json(ktool::iso8601_utc(row.newest)) : json();
        case 9: return row.has_expiry ? json(row.earliest_expiry) : json();
        case 10: return row.has_expiry ? json(ktool::iso8601_utc(row.earliest_expiry)) : json();
    }
    return json();
}

// As text: numbers in decimal, texts as they are, null as nothing.
std::string summary_cell(const appdb::find_summary& row, size_t k) {
    if (k == 1) return row.client;
    if (k == 2) return row.policy;
    const json v = summary_value(row, k);
    if (v.is_null()) return std::string();
    if (v.is_string()) return v.get<std::string>();
    return v.dump();
}

size_t summary_index(const std::string& name) {
    for (size_t k = 0; k < kSummaryColumnCount; ++k) {
        if (name == kSummaryColumns[k]) return k;
    }
    return 0;  // checked when the options were read
}

std::string summary_header(const options& o) {
    if (o.form != output_form::csv) return std::string();
    std::string h;
    for (size_t k = 0; k < kSummaryColumnCount; ++k) {
        if (k != 0) h += ',';
        h += kSummaryColumns[k];
    }
    return h + "\n";
}

std::string render_summary(const options& o, const appdb::find_summary& row) {
    std::string out;
    switch (o.form) {
        case output_form::line:
            // Like an item's line: every value followed by "|".
            for (size_t k = 0; k < kSummaryColumnCount; ++k) {
                if (k == 6 || k == 8 || k == 10) continue;  // the "_utc" twins: not in the line
                out += summary_cell(row, k);
                out += '|';
            }
            break;
        case output_form::json_lines: {
            json j = json::object();
            for (size_t k = 0; k < kSummaryColumnCount; ++k) j[kSummaryColumns[k]] = summary_value(row, k);
            out = ktool::json_line(j);
            break;
        }
        case output_form::csv:
            for (size_t k = 0; k < kSummaryColumnCount; ++k) {
                if (k != 0) out += ',';
                append_csv_cell(out, summary_cell(row, k));
            }
            break;
        case output_form::format:
            for (const template_piece& p : compile_template(o.format)) {
                out += p.field.empty() ? p.literal : summary_cell(row, summary_index(p.field));
            }
            break;
    }
    return out + "\n";
}

}  // namespace

find_printer::find_printer(const options& o) : options_(o) {
    if (o.form == output_form::format && o.result != result_kind::summary) {
        for (const template_piece& p : compile_template(o.format)) {
            pieces_.push_back(piece{p.literal, p.field.empty() ? nullptr : item_column_named(p.field)});
        }
    }
}

void find_printer::begin() {
    if (options_.form != output_form::csv || options_.result == result_kind::count) return;
    std::string h;
    if (options_.result == result_kind::summary) {
        h = summary_header(options_);
    } else {
        for (const item_column& c : item_columns()) {
            if (!h.empty()) h += ',';
            h += c.name;
        }
        h += "\n";
    }
    fwrite(h.data(), 1, h.size(), stdout);
}

void find_printer::render(std::string* line, uint32_t dsid, const appdb::app_catalog_item& item) {
    std::string& out = *line;
    out.clear();
    switch (options_.form) {
        case output_form::line: out = item.to_string(); break;
        case output_form::json_lines: out = ktool::json_line(item_json(dsid, item)); break;
        case output_form::csv:
            for (const item_column& c : item_columns()) {
                if (c.kind != column_kind::dsid) out += ',';
                cell_.clear();
                append_cell(cell_, c, dsid, item);
                append_csv_cell(out, cell_);
            }
            break;
        case output_form::format:
            for (const piece& p : pieces_) {
                if (p.column == nullptr) {
                    out += p.literal;
                } else {
                    append_cell(out, *p.column, dsid, item);
                }
            }
            break;
    }
    out += '\n';
}

void find_printer::summary(const appdb::find_summary& row) {
    const std::string text = render_summary(options_, row);
    fwrite(text.data(), 1, text.size(), stdout);
}

void find_printer::skipped(appdb::find_skip why, const std::string& path, cr_status_t status, int error) {
    switch (why) {
        case appdb::find_skip::directory:
            fprintf(stderr, "%s: skipped %s: cannot read the directory (%s)\n", kProgram, path.c_str(),
                    strerror(error));
            break;
        case appdb::find_skip::not_readable:
            fprintf(stderr, "%s: skipped %s: not readable (permission denied)\n", kProgram, path.c_str());
            break;
        case appdb::find_skip::unreadable:
            fprintf(stderr, "%s: skipped %s: the catalog database could not be read (status %u; %s)\n", kProgram,
                    path.c_str(), status, kshadow::where_logged().c_str());
            break;
    }
}

}  // namespace kfind
