// Certificates for tests and benchmarks, each with a P-256 key.
#pragma once

#include <string>

// Writes into sDir NAME-ca.pem and NAME-ca.key (an authority, what a trust file
// holds), NAME.pem and NAME.key (a server's it signed for sHost, an IP address
// or a DNS name). False when OpenSSL failed.
bool ZV_MakeCertificates(const std::string& sDir, const std::string& sName, const std::string& sHost);
