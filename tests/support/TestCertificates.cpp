#include "support/TestCertificates.h"

#include <sys/wait.h>

#include <chrono>
#include <stdexcept>
#include <vector>

#include "support/ChildProcess.h"

namespace vlm::test {
namespace {

const char* const opensslPath = "/usr/bin/openssl";

const char* const opensslConfig = R"([req]
distinguished_name = dn
prompt = no
[dn]
CN = unused
[ca_ext]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[loopback_ext]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature,keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = IP:127.0.0.1,DNS:localhost
[other_ext]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature,keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = DNS:broker.other.example
)";

} // namespace

TestCertificates::TestCertificates()
{
    dir.write("openssl.cnf", opensslConfig);
    caFile = makeCa("ca", "Velmora Test CA");
    const std::string strangerCa = makeCa("stranger-ca", "Stranger CA");
    loopback = makeServer("loopback", "ca", "loopback_ext", 2);
    otherName = makeServer("other", "ca", "other_ext", 3);
    untrusted = makeServer("untrusted", "stranger-ca", "loopback_ext", 4);
}

void TestCertificates::run(const std::vector<std::string>& args)
{
    std::vector<std::string> command{opensslPath};
    command.insert(command.end(), args.begin(), args.end());
    ChildProcess openssl(command, dir.file("openssl-" + std::to_string(++runs) + ".log"));
    const auto status = openssl.waitExit(std::chrono::seconds(30));
    if (!status)
        throw std::runtime_error("openssl " + args.front() + " did not finish");
    if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
        throw std::runtime_error("openssl " + args.front() + " failed: " + openssl.output());
}

std::string TestCertificates::makeCa(const std::string& name, const std::string& commonName)
{
    run({"req", "-x509", "-config", dir.file("openssl.cnf"), "-extensions", "ca_ext", "-newkey", "ec", "-pkeyopt",
         "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", dir.file(name + ".key"), "-out", dir.file(name + ".pem"),
         "-days", "2", "-subj", "/CN=" + commonName});
    return dir.file(name + ".pem");
}

TestCertificates::ServerCertificate TestCertificates::makeServer(const std::string& name, const std::string& ca,
                                                                 const std::string& extensions, int serial)
{
    run({"req", "-new", "-config", dir.file("openssl.cnf"), "-newkey", "ec", "-pkeyopt",
         "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", dir.file(name + ".key"), "-out", dir.file(name + ".csr"),
         "-subj", "/CN=" + name});
    run({"x509", "-req", "-in", dir.file(name + ".csr"), "-CA", dir.file(ca + ".pem"), "-CAkey", dir.file(ca + ".key"),
         "-set_serial", std::to_string(serial), "-out", dir.file(name + ".pem"), "-days", "2", "-extfile",
         dir.file("openssl.cnf"), "-extensions", extensions});
    return {dir.file(name + ".pem"), dir.file(name + ".key")};
}

} // namespace vlm::test
