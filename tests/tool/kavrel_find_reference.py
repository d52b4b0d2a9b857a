#!/usr/bin/env python3
"""An independent kavrel-find for the end-to-end tests.

Reads the catalog databases under ROOT with Python's sqlite3 module alone and
prints what kavrel-find should print for the same options, so that the tests
compare the command with code that shares nothing with it. Times must be
given in seconds; output order is the walk's (the tests compare sets, or
sort). Usage: kavrel_find_reference.py ROOT [OPTIONS]
"""
import datetime
import json
import os
import sqlite3
import sys
import zlib
import struct

FIELDS = [  # (member name, column, kind) in the item's declaration order
    ("version", "version", "u32"), ("file_name", "filename", "text"), ("file_len", "filelen", "u64"),
    ("backup_id", "backupid", "text"), ("policy", None, "text"), ("policy_type", "policy_type", "u32"),
    ("schedule_type", "schedule_type", "u32"), ("frag_nums", "frag_nums", "u32"), ("client", None, "text"),
    ("app_id", "app_id", "text"), ("data_object", "dataobject", "text"),
    ("app_expire_time", "backup_app_expire_time", "time"),
    ("orvo_expire_time", "backup_orvo_expire_time", "time"),
    ("backup_start_time", "backup_start_time", "time"), ("backup_stop_time", "backup_stop_time", "time"),
    ("owner", "owner", "text"), ("owner_role", "owner_role", "u32"), ("description", "description", "text"),
] + [("reserver%d" % i, "reserver%d" % i, "text") for i in range(10)]

MEMORY = sqlite3.connect(":memory:")


def glob(pattern, text):
    return MEMORY.execute("SELECT ? GLOB ?", (text, pattern)).fetchone()[0] == 1


def utc(t):
    return (datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=t)).strftime("%Y-%m-%dT%H:%M:%SZ")


def json_text(b):
    try:
        return b.decode("utf-8")
    except UnicodeDecodeError:
        return {"hex": b.hex()}


def checksum(r):
    data = struct.pack("<I", r["version"] & 0xFFFFFFFF) + r["file_name"] + struct.pack("<Q", r["file_len"] & (2**64 - 1))
    data += r["backup_id"] + struct.pack("<III", r["policy_type"] & 0xFFFFFFFF, r["schedule_type"] & 0xFFFFFFFF,
                                         r["frag_nums"] & 0xFFFFFFFF)
    data += r["app_id"] + r["data_object"]
    for k in ("app_expire_time", "orvo_expire_time", "backup_start_time", "backup_stop_time"):
        data += struct.pack("<q", r[k])
    data += r["owner"] + struct.pack("<I", r["owner_role"] & 0xFFFFFFFF) + r["description"]
    for i in range(10):
        data += r["reserver%d" % i]
    return zlib.adler32(data, 1)


def columns():
    out = [("dsid", "dsid", None)]
    for name, _, kind in FIELDS:
        out.append((name, "field", kind))
        if kind == "time":
            out.append((name + "_utc", "utc", name))
    return out


def cell(item, col):
    name, what, kind = col
    if what == "dsid":
        return str(item["dsid"]).encode()
    if what == "utc":
        return utc(item[kind]).encode()
    v = item[name]
    return v if kind == "text" else str(v).encode()


def csv_cell(b):
    if any(c in b for c in (b",", b'"', b"\r", b"\n")):
        return b'"' + b.replace(b'"', b'""') + b'"'
    return b


def expand(template, lookup):
    out = b""
    i = 0
    t = template.encode()
    while i < len(t):
        c = t[i:i + 1]
        if c in (b"{", b"}") and t[i + 1:i + 2] == c:
            out += c
            i += 2
        elif c == b"{":
            j = t.index(b"}", i)
            out += lookup(t[i + 1:j].decode())
            i = j + 1
        else:
            out += c
            i += 1
    return out


def main():
    root = sys.argv[1]
    args = sys.argv[2:]
    opt = {}
    i = 0
    while i < len(args):
        a = args[i]
        if a in ("--json-lines", "--csv", "--count", "--summary"):
            opt[a] = True
            i += 1
        else:
            opt[a] = args[i + 1]
            i += 2
    where, values = [], []
    if "--backup-id" in opt:
        where.append("backupid GLOB ?"); values.append(opt["--backup-id"])
    if "--file-name" in opt:
        where.append("filename GLOB ?"); values.append(opt["--file-name"])
    if "--owner" in opt:
        where.append("owner = ?"); values.append(opt["--owner"])
    if "--since" in opt:
        where.append("backup_start_time >= ?"); values.append(int(opt["--since"]))
    if "--until" in opt:
        where.append("backup_start_time <= ?"); values.append(int(opt["--until"]))
    if "--expires-before" in opt:
        t = int(opt["--expires-before"])
        where.append("((backup_app_expire_time != 0 AND backup_app_expire_time < ?) OR "
                     "(backup_orvo_expire_time != 0 AND backup_orvo_expire_time < ?))")
        values += [t, t]
    sql = "SELECT * FROM catalog" + (" WHERE " + " AND ".join(where) if where else "")

    out = sys.stdout.buffer
    cols = columns()
    if "--csv" in opt:
        if "--summary" in opt:
            out.write(b",".join(n.encode() for n in SUMMARY) + b"\n")
        else:
            out.write(b",".join(c[0].encode() for c in cols) + b"\n")
    count = 0
    app = os.path.join(root, "databases", "application")
    for dsid in sorted(os.listdir(app)) if os.path.isdir(app) else []:
        if "--dsid" in opt and int(dsid) != int(opt["--dsid"]):
            continue
        for client in sorted(os.listdir(os.path.join(app, dsid))):
            if "--client" in opt and not glob(opt["--client"], client):
                continue
            for policy in sorted(os.listdir(os.path.join(app, dsid, client))):
                if "--policy" in opt and not glob(opt["--policy"], policy):
                    continue
                db_path = os.path.join(app, dsid, client, policy, "app.db")
                if not os.path.exists(db_path):
                    continue
                db = sqlite3.connect(db_path)
                db.text_factory = bytes
                rows = db.execute(sql, values).fetchall()
                names = [d[0] for d in db.execute("SELECT * FROM catalog LIMIT 0").description]
                db.close()
                items = []
                for row in rows:
                    r = dict(zip(names, row))
                    item = {"dsid": int(dsid), "client": client.encode(), "policy": policy.encode()}
                    for name, column, kind in FIELDS:
                        if column is not None:
                            item[name] = r[column]
                    if checksum(item) != (r["crc"] & 0xFFFFFFFF):
                        sys.stderr.write("bad checksum in %s\n" % db_path)
                        items = None
                        break
                    items.append(item)
                if items is None:
                    continue
                count += len(items)
                if "--summary" in opt and items:
                    write_summary(out, opt, int(dsid), client, policy, items)
                    continue
                if "--count" in opt or "--summary" in opt:
                    continue
                for item in items:
                    write_item(out, opt, cols, item)
    if "--count" in opt:
        out.write(b"%d\n" % count)


SUMMARY = ["dsid", "client", "policy", "items", "file_len", "oldest_backup_start_time",
           "oldest_backup_start_time_utc", "newest_backup_start_time", "newest_backup_start_time_utc",
           "earliest_expire_time", "earliest_expire_time_utc"]


def write_summary(out, opt, dsid, client, policy, items):
    starts = [it["backup_start_time"] for it in items]
    expiries = [e for it in items for e in (it["app_expire_time"], it["orvo_expire_time"]) if e > 0]
    oldest = min(starts) if starts else None
    newest = max(starts) if starts else None
    earliest = min(expiries) if expiries else None
    row = {"dsid": dsid, "client": client, "policy": policy, "items": len(items),
           "file_len": sum(it["file_len"] for it in items),
           "oldest_backup_start_time": oldest, "oldest_backup_start_time_utc": utc(oldest) if starts else None,
           "newest_backup_start_time": newest, "newest_backup_start_time_utc": utc(newest) if starts else None,
           "earliest_expire_time": earliest, "earliest_expire_time_utc": utc(earliest) if expiries else None}
    text = {k: (b"" if v is None else str(v).encode()) for k, v in row.items()}
    if "--json-lines" in opt:
        out.write(json.dumps(row, separators=(",", ":"), ensure_ascii=False).encode() + b"\n")
    elif "--csv" in opt:
        out.write(b",".join(csv_cell(text[k]) for k in SUMMARY) + b"\n")
    elif "--format" in opt:
        out.write(expand(opt["--format"], lambda n: text[n]) + b"\n")
    else:
        out.write(b"".join(text[k] + b"|" for k in SUMMARY if not k.endswith("_utc")) + b"\n")


def write_item(out, opt, cols, item):
    if "--json-lines" in opt:
        obj = {}
        for name, what, kind in cols:
            if what == "dsid":
                obj[name] = item["dsid"]
            elif what == "utc":
                obj[name] = utc(item[kind])
            elif kind == "text":
                obj[name] = json_text(item[name])
            else:
                obj[name] = item[name]
        out.write(json.dumps(obj, separators=(",", ":"), ensure_ascii=False).encode("utf-8") + b"\n")
    elif "--csv" in opt:
        out.write(b",".join(csv_cell(cell(item, c)) for c in cols) + b"\n")
    elif "--format" in opt:
        by_name = {c[0]: c for c in cols}
        out.write(expand(opt["--format"], lambda n: cell(item, by_name[n])) + b"\n")
    else:
        line = b""
        for name, _, kind in FIELDS:
            v = item[name]
            if kind == "time":
                v = str(v & (2**64 - 1)).encode()
            elif kind != "text":
                v = str(v).encode()
            line += v + b"|"
        out.write(line + b"\n")


if __name__ == "__main__":
    main()
