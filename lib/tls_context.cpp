// tls_context.cpp -- loading CAs, the client certificate and its key.
#include "tls_context.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kelvane {
namespace {

// A file the settings name must be a readable regular file; OpenSSL's own
// errors for a missing file say less, and a FIFO would make it wait for a
// writer, with no deadline.
bool readable(const std::string& path, const char* what, std::string* why) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st {};
    const bool regular = fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    const int error = errno;
    if (fd >= 0) ::close(fd);
    if (regular) return true;
    *why = std::string("cannot read the ") + what + " " + path + ": " +
           (fd >= 0 ? "not a regular file" : std::strerror(error));
    return false;
}

bool readable_dir(const std::string& path, std::string* why) {
    DIR* d = opendir(path.c_str());
    if (d != nullptr) {
        closedir(d);
        return true;
    }
    *why = "cannot read the TLS CA directory " + path + ": " + std::strerror(errno);
    return false;
}

// An encrypted key would otherwise make OpenSSL ask for its passphrase on
// the terminal, and wait.
int no_passphrase(char*, int, int, void*) { return 0; }

bool load(SSL_CTX* ctx, TlsCheck check, const TlsFiles& f, std::string* why) {
    if (!f.ca_file.empty() && !readable(f.ca_file, "TLS CA file", why)) return false;
    if (!f.ca_dir.empty() && !readable_dir(f.ca_dir, why)) return false;
    if (!f.ca_file.empty() || !f.ca_dir.empty()) {
        if (SSL_CTX_load_verify_locations(ctx, f.ca_file.empty() ? nullptr : f.ca_file.c_str(),
                                          f.ca_dir.empty() ? nullptr : f.ca_dir.c_str()) != 1) {
            *why = "no CA certificate in " + f.ca_file + ": " + openssl_reason("unusable");
            return false;
        }
    } else if (check != TlsCheck::none && SSL_CTX_set_default_verify_paths(ctx) != 1) {
        *why = "cannot load the system's CA store: " + openssl_reason("unusable");
        return false;
    }
    if (f.cert_file.empty()) {
        if (f.key_file.empty()) return true;
        *why = "a TLS key file (" + f.key_file + ") without a certificate file";
        return false;
    }
    const std::string& key = f.key_file.empty() ? f.cert_file : f.key_file;
    if (!readable(f.cert_file, "TLS certificate file", why) || !readable(key, "TLS key file", why)) {
        return false;
    }
    if (SSL_CTX_use_certificate_chain_file(ctx, f.cert_file.c_str()) != 1) {
        *why = "no certificate in " + f.cert_file + ": " + openssl_reason("unusable");
        return false;
    }
    SSL_CTX_set_default_passwd_cb(ctx, no_passphrase);
    const bool loaded = SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) == 1;
    if (!loaded && ERR_GET_REASON(ERR_peek_last_error()) != X509_R_KEY_VALUES_MISMATCH) {
        *why = "no usable private key in " + key + " (an encrypted key is not supported): " +
               openssl_reason("unusable");
        return false;
    }
    if (!loaded || SSL_CTX_check_private_key(ctx) != 1) {
        *why = "the key in " + key + " does not match the certificate in " + f.cert_file;
        ERR_clear_error();
        return false;
    }
    return true;
}

}  // namespace

std::string openssl_reason(const char* fallback) {
    const unsigned long e = ERR_peek_last_error();
    const char* reason = e != 0 ? ERR_reason_error_string(e) : nullptr;
    std::string out = reason != nullptr ? reason : fallback;
    ERR_clear_error();
    return out;
}

std::shared_ptr<const TlsContext> TlsContext::create(TlsCheck check, const TlsFiles& files,
                                                     std::string* why) {
    ERR_clear_error();
    SSL_CTX* raw = SSL_CTX_new(TLS_client_method());
    if (raw == nullptr) {
        *why = "cannot set up TLS: " + openssl_reason("out of memory");
        return nullptr;
    }
    std::shared_ptr<TlsContext> ctx(new TlsContext(raw, check));
    SSL_CTX_set_min_proto_version(raw, TLS1_2_VERSION);
    // One read takes whatever has arrived, not a record header first.
    SSL_CTX_set_read_ahead(raw, 1);
    // A server that closes without a TLS goodbye has closed the connection,
    // as it would have without TLS.
    SSL_CTX_set_options(raw, SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_verify(raw, check == TlsCheck::none ? SSL_VERIFY_NONE : SSL_VERIFY_PEER, nullptr);
    if (!load(raw, check, files, why)) return nullptr;
    return ctx;
}

}  // namespace kelvane
