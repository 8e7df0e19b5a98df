// tls_certificates.cpp -- making the certificates with the openssl command.
#include "tls_certificates.h"

#include <stdexcept>

namespace kelvane_test {
namespace {

// EC keys: quick to make. `-days -1` gives a certificate that expired a day after it began, yesterday.
const char* const kScript = R"(set -e
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2>/dev/null; }
authority() {
  key "$1"
  openssl req -x509 -new -key "$1.key" -out "$1.crt" -days 3 -subj "/CN=$1" 2>/dev/null
}
# issue NAME AUTHORITY DAYS [SUBJECT-ALT-NAMES]
issue() {
  [ -f "$1.key" ] || key "$1"
  openssl req -new -key "$1.key" -out "$1.csr" -subj "/CN=$1" 2>/dev/null
  ext=/dev/null
  if [ -n "${4:-}" ]; then printf 'subjectAltName=%s\n' "$4" > "$1.ext"; ext="$1.ext"; fi
  openssl x509 -req -in "$1.csr" -CA "$2.crt" -CAkey "$2.key" -CAcreateserial -days "$3" -extfile "$ext" \
    -out "$1.crt" 2>/dev/null
}
authority ca
authority rogue
issue server ca 3 IP:127.0.0.1,DNS:localhost
cp server.key expired.key; issue expired ca -1 IP:127.0.0.1,DNS:localhost
cp server.key wrong-name.key; issue wrong-name ca 3 DNS:elsewhere.test,IP:10.9.8.7
issue untrusted rogue 3 IP:127.0.0.1,DNS:localhost
issue client ca 3
issue untrusted-client rogue 3
key other
)";

}  // namespace

TestCertificates::TestCertificates() {
    CommandOptions options;
    options.dir = dir_.path();
    options.timeout_s = 60;
    const CommandResult made = run_command({"bash", "-c", kScript}, options);
    if (made.exit_code != 0) throw std::runtime_error("openssl could not make the test certificates: " + made.err);
}

}  // namespace kelvane_test
