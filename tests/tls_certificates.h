// tls_certificates.h -- a throwaway certificate authority and the certificates the TLS tests need, made with the
// openssl command in a temporary directory that lives as long as the object: a server certificate for 127.0.0.1
// and localhost, the same key pair under an expired certificate and under one for another name, a server
// certificate from an authority nobody trusts, and client certificates from both authorities.
#ifndef KELVANE_TESTS_TLS_CERTIFICATES_H
#define KELVANE_TESTS_TLS_CERTIFICATES_H

#include <string>

#include "command_runner.h"

namespace kelvane_test {

// A certificate and its key, as PEM files.
struct CertPair {
    std::string cert, key;
};

class TestCertificates {
public:
    TestCertificates();  // throws when openssl fails

    std::string ca() const { return dir_ / "ca.crt"; }  // the authority the clients trust
    CertPair server() const { return pair("server"); }         // IP 127.0.0.1, DNS localhost
    CertPair expired() const { return pair("expired"); }       // the same names, no longer valid
    CertPair wrong_name() const { return pair("wrong-name"); }  // DNS elsewhere.test, IP 10.9.8.7 only
    CertPair untrusted() const { return pair("untrusted"); }    // the right names, from another authority
    CertPair client() const { return pair("client"); }
    CertPair untrusted_client() const { return pair("untrusted-client"); }
    std::string other_key() const { return dir_ / "other.key"; }  // matches none of the certificates
    std::string path(const std::string& name) const { return dir_ / name; }

private:
    CertPair pair(const std::string& name) const { return {dir_ / (name + ".crt"), dir_ / (name + ".key")}; }
    TempDir dir_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_TLS_CERTIFICATES_H
