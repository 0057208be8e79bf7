#pragma once

#include "support/ChildProcess.h"
#include "support/TempDir.h"

#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ktr::test {

/// A certificate authority, a server certificate of it for `names` and a client certificate, made
/// anew; the files go with the object.
class Certificates {
public:
    explicit Certificates(std::string names = "IP:127.0.0.1,DNS:localhost") {
        openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-days", "2", "-subj", "/CN=ketra test authority", "-keyout", file("ca.key"),
                 "-out", caFile()});
        issue("server", "subjectAltName=" + std::move(names));
        issue("client", "extendedKeyUsage=clientAuth");
    }

    std::string caFile() const { return file("ca.pem"); }
    std::string certificateFile() const { return file("server.pem"); }
    std::string keyFile() const { return file("server.key"); }
    std::string clientCertificateFile() const { return file("client.pem"); }
    std::string clientKeyFile() const { return file("client.key"); }

private:
    std::string file(const std::string& name) const { return (folder / name).string(); }

    void issue(const std::string& name, const std::string& extension) {
        std::ofstream(file(name + ".ext")) << extension << '\n';
        openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                 "/CN=ketra test " + name, "-keyout", file(name + ".key"), "-out",
                 file(name + ".csr")});
        openssl({"x509", "-req", "-in", file(name + ".csr"), "-CA", caFile(), "-CAkey",
                 file("ca.key"), "-CAcreateserial", "-days", "2", "-extfile", file(name + ".ext"),
                 "-out", file(name + ".pem")});
    }

    void openssl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "/usr/bin/openssl");
        if (ChildProcess(arguments, file("openssl.log")).wait() != 0)
            throw std::runtime_error("openssl " + arguments[1] + " failed");
    }

    TempDir folder;
};

} // namespace ktr::test
