#pragma once

#include <string>

#include "support/TempDir.h"

namespace vlm::test {

/// Certificates made for one test by openssl (EC P-256, two days): `caFile`, a CA the client
/// trusts; `loopback`, signed by it for 127.0.0.1 and localhost; `otherName`, signed by it for
/// "broker.other.example" only; `untrusted`, for 127.0.0.1 and localhost from a CA nobody trusts.
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
    TempDir dir;
};

} // namespace vlm::test
