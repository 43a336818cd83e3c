#include "support/TestCertificates.h"

#include <sys/wait.h>

#include <chrono>
#include <stdexcept>
#include <vector>

#include "support/ChildProcess.h"

namespace vlm::test {

TestCertificates::TestCertificates()
{
    const std::string config = dir.write("openssl.cnf", "[req]\ndistinguished_name = dn\n[dn]\n");
    int serial = 1;
    // A self-signed CA without `ca`, else a server certificate it signs for `names`.
    const auto make = [&](const std::string& name, const std::string& ca, const std::string& names) {
        std::vector<std::string> args{"/usr/bin/openssl", "req", "-x509", "-config", config, "-newkey", "ec", "-pkeyopt",
                                      "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=" + name,
                                      "-keyout", dir.file(name + ".key"), "-out", dir.file(name + ".pem")};
        std::vector<std::string> extensions{"basicConstraints=critical,CA:TRUE", "keyUsage=critical,keyCertSign,cRLSign"};
        if (!ca.empty()) {
            args.insert(args.end(), {"-CA", dir.file(ca + ".pem"), "-CAkey", dir.file(ca + ".key"), "-set_serial",
                                     std::to_string(++serial)});
            extensions = {"basicConstraints=CA:FALSE", "keyUsage=critical,digitalSignature,keyEncipherment",
                          "extendedKeyUsage=serverAuth", "subjectAltName=" + names};
        }
        for (const auto& extension : extensions)
            args.insert(args.end(), {"-addext", extension});
        ChildProcess openssl(args, dir.file(name + ".log"));
        const auto status = openssl.waitExit(std::chrono::seconds(30));
        if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
            throw std::runtime_error("openssl for " + name + " failed: " + openssl.output());
        return ServerCertificate{dir.file(name + ".pem"), dir.file(name + ".key")};
    };
    caFile = make("ca", "", "").certFile;
    make("stranger-ca", "", "");
    loopback = make("loopback", "ca", "IP:127.0.0.1,DNS:localhost");
    otherName = make("other", "ca", "DNS:broker.other.example");
    untrusted = make("untrusted", "stranger-ca", "IP:127.0.0.1,DNS:localhost");
}

} // namespace vlm::test
