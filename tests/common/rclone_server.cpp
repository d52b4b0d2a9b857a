#include "common/rclone_server.h"

#include <unistd.h>

#include <vector>

namespace kt {

namespace {

const char kRclone[] = "/usr/bin/rclone";

}  // namespace

RcloneServer::RcloneServer(const std::string& store, const Options& options) : options_(options) {
    if (!start(store)) stop();
}

std::string RcloneServer::url(const std::string& path, const std::string& password) const {
    return std::string("rest:") + (options_.tls ? "https" : "http") + "://" + options_.user + ":" +
           (password.empty() ? options_.password : password) + "@127.0.0.1:" + std::to_string(port_) + "/" + path;
}

bool RcloneServer::start(const std::string& store) {
    if (access(kRclone, X_OK) != 0) {
        error_ = std::string(kRclone) + " is not installed (package rclone)";
        return false;
    }
    // The server takes apr1 hashes of htpasswd files; openssl makes them.
    const std::string tools_log = dir_.file("tools.log");
    const std::string hash_file = dir_.file("hash");
    write_file(dir_.file("password"), options_.password + "\n");
    if (run_to_end({"sh", "-c", "openssl passwd -apr1 -stdin < " + dir_.file("password") + " > " + hash_file},
                   tools_log) != 0) {
        error_ = "openssl passwd failed: " + read_file(tools_log);
        return false;
    }
    write_file(dir_.file("htpasswd"), options_.user + ":" + read_file(hash_file));
    std::vector<std::string> args = {kRclone, "serve", "restic", "--htpasswd", dir_.file("htpasswd"),
                                     "--cache-objects=false"};
    if (options_.append_only) args.push_back("--append-only");
    if (options_.tls) {
        if (run_to_end({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                        "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", dir_.file("key.pem"),
                        "-out", ca_file()},
                       tools_log) != 0) {
            error_ = "openssl req failed: " + read_file(tools_log);
            return false;
        }
        args.insert(args.end(), {"--cert", ca_file(), "--key", dir_.file("key.pem")});
    }
    // The free port may be taken by someone else before rclone binds it:
    // then another one.
    for (int attempt = 0; attempt < 3; ++attempt) {
        port_ = free_port();
        std::vector<std::string> all = args;
        all.insert(all.end(), {"--addr", "127.0.0.1:" + std::to_string(port_), store});
        if (server_.start(all, port_, dir_.file("rclone.log"), &error_)) return true;
        if (log().find("address already in use") == std::string::npos) return false;
    }
    return false;
}

}  // namespace kt
