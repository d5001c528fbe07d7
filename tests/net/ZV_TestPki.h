// Certificates for tests and benchmarks, made through the OpenSSL API: an
// authority and a server certificate it signed, each with a P-256 key.
#pragma once

#include <string>

// Writes into sDir: NAME-ca.pem (the authority's certificate, what a trust
// file holds) and NAME-ca.key, NAME.pem (the server's certificate, for
// sHost: an IP address or a DNS name) and NAME.key (its key). False when
// OpenSSL failed.
bool ZV_MakeCertificates(const std::string& sDir, const std::string& sName, const std::string& sHost);
