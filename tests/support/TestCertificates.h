#pragma once

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace vlm::test {

/// Certificates made for one test by the openssl command line (EC P-256, valid
/// two days):
/// - `caFile`: a CA the client trusts;
/// - `loopback`: a server certificate it signed for 127.0.0.1 and localhost;
/// - `otherName`: a server certificate it signed for "broker.other.example" only;
/// - `untrusted`: a server certificate for 127.0.0.1 and localhost signed by a
///   second CA that nobody trusts.
/// Throws std::runtime_error with openssl's output when a step fails.
class TestCertificates {
public:
    struct ServerCertificate {
        std::string certFile;
        std::string keyFile;
    };

    TestCertificates();

    std::string caFile;
    ServerCertificate loopback;
    ServerCertificate otherName;
    ServerCertificate untrusted;

private:
    void run(const std::vector<std::string>& args);
    std::string makeCa(const std::string& name, const std::string& commonName);
    ServerCertificate makeServer(const std::string& name, const std::string& ca, const std::string& extensions,
                                 int serial);

    TempDir dir;
    int runs = 0;
};

} // namespace vlm::test
