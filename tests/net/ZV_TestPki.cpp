#include "ZV_TestPki.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

bool AddExtension(X509* lpCert, X509* lpIssuer, int nNid, const std::string& sValue)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, lpIssuer, lpCert, nullptr, nullptr, 0);
    X509_EXTENSION* lpExtension = X509V3_EXT_conf_nid(nullptr, &context, nNid, sValue.c_str());
    const bool bDone = lpExtension && X509_add_ext(lpCert, lpExtension, -1) == 1;
    X509_EXTENSION_free(lpExtension);
    return bDone;
}

// An authority's certificate signs itself; a server's is signed by its
// authority and names its host.
Certificate Make(EVP_PKEY* lpKey, const std::string& sCommonName, X509* lpIssuer, EVP_PKEY* lpIssuerKey,
                 const std::string& sHost)
{
    Certificate lpCert(X509_new(), &X509_free);
    uint64_t ullSerial = 0;
    RAND_bytes((unsigned char*)&ullSerial, sizeof ullSerial);
    X509_set_version(lpCert.get(), 2);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(lpCert.get()), ullSerial >> 1);
    X509_gmtime_adj(X509_getm_notBefore(lpCert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(lpCert.get()), 30L * 86400);
    X509_set_pubkey(lpCert.get(), lpKey);
    X509_NAME* lpName = X509_get_subject_name(lpCert.get());
    X509_NAME_add_entry_by_txt(lpName, "CN", MBSTRING_UTF8, (const unsigned char*)sCommonName.c_str(), -1, -1, 0);
    X509* lpSigner = lpIssuer ? lpIssuer : lpCert.get();
    X509_set_issuer_name(lpCert.get(), X509_get_subject_name(lpSigner));
    const bool bIp = sHost.find_first_not_of("0123456789.") == std::string::npos || sHost.find(':') != std::string::npos;
    const bool bDone =
        !lpIssuer ? AddExtension(lpCert.get(), lpSigner, NID_basic_constraints, "critical,CA:TRUE") &&
                         AddExtension(lpCert.get(), lpSigner, NID_key_usage, "critical,keyCertSign,cRLSign")
                   : AddExtension(lpCert.get(), lpSigner, NID_basic_constraints, "CA:FALSE") &&
                         AddExtension(lpCert.get(), lpSigner, NID_ext_key_usage, "serverAuth") &&
                         AddExtension(lpCert.get(), lpSigner, NID_subject_alt_name, (bIp ? "IP:" : "DNS:") + sHost);
    if (!bDone || X509_sign(lpCert.get(), lpIssuerKey ? lpIssuerKey : lpKey, EVP_sha256()) == 0)
        lpCert.reset();
    return lpCert;
}

bool WritePem(const std::string& sPath, X509* lpCert, EVP_PKEY* lpKey)
{
    FILE* lpFile = std::fopen(sPath.c_str(), "w");
    const bool bDone = lpFile && (lpCert ? PEM_write_X509(lpFile, lpCert) == 1
                                         : PEM_write_PrivateKey(lpFile, lpKey, nullptr, nullptr, 0, nullptr, nullptr) == 1);
    return lpFile && std::fclose(lpFile) == 0 && bDone;
}

}  // namespace

bool ZV_MakeCertificates(const std::string& sDir, const std::string& sName, const std::string& sHost)
{
    const std::string sBase = sDir + "/" + sName;
    Key lpAuthorityKey(EVP_EC_gen("P-256"), &EVP_PKEY_free);
    Certificate lpAuthority(nullptr, &X509_free);
    if (lpAuthorityKey)
        lpAuthority = Make(lpAuthorityKey.get(), "roomcrate test authority " + sName, nullptr, nullptr, {});
    if (!lpAuthority || !WritePem(sBase + "-ca.pem", lpAuthority.get(), nullptr) ||
        !WritePem(sBase + "-ca.key", nullptr, lpAuthorityKey.get()))
        return false;
    Key lpServerKey(EVP_EC_gen("P-256"), &EVP_PKEY_free);
    Certificate lpServer(nullptr, &X509_free);
    if (lpServerKey)
        lpServer = Make(lpServerKey.get(), sHost, lpAuthority.get(), lpAuthorityKey.get(), sHost);
    return lpServer && WritePem(sBase + ".pem", lpServer.get(), nullptr) &&
           WritePem(sBase + ".key", nullptr, lpServerKey.get());
}
