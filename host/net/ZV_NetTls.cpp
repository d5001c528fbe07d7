#include "ZV_NetTls.h"

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace {

// RFC 9266: 32 bytes under this label, without a context.
constexpr char kExporterLabel[] = "EXPORTER-Channel-Binding";
constexpr size_t kExporterSize = 32;

std::shared_ptr<asio::ssl::context> MakeContext(asio::ssl::context::method eMethod)
{
    auto lpContext = std::make_shared<asio::ssl::context>(eMethod);
    SSL_CTX_set_min_proto_version(lpContext->native_handle(), TLS1_2_VERSION);
    SSL_CTX_set_options(lpContext->native_handle(), SSL_OP_NO_RENEGOTIATION);
    return lpContext;
}

}  // namespace

std::shared_ptr<asio::ssl::context> ZV_MakeServerTls(const std::string& sCertificate, const std::string& sPrivateKey,
                                                     std::string& sError)
{
    auto lpContext = MakeContext(asio::ssl::context::tls_server);
    asio::error_code ec;
    lpContext->use_certificate_chain_file(sCertificate, ec);
    if (ec)
    {
        sError = sCertificate + ": no certificate can be read from it (" + ec.message() + ")";
        return nullptr;
    }
    lpContext->use_private_key_file(sPrivateKey, asio::ssl::context::pem, ec);
    if (ec || SSL_CTX_check_private_key(lpContext->native_handle()) != 1)
    {
        sError = sPrivateKey + ": no private key of the certificate can be read from it" +
                 (ec ? " (" + ec.message() + ")" : std::string());
        return nullptr;
    }
    return lpContext;
}

std::shared_ptr<asio::ssl::context> ZV_MakeClientTls(const std::string& sTrust, std::string& sError)
{
    auto lpContext = MakeContext(asio::ssl::context::tls_client);
    asio::error_code ec;
    lpContext->load_verify_file(sTrust, ec);
    if (ec)
    {
        sError = sTrust + ": no trusted certificate can be read from it (" + ec.message() + ")";
        return nullptr;
    }
    lpContext->set_verify_mode(asio::ssl::verify_peer);
    return lpContext;
}

// OpenSSL checks the name itself, so that a failure says which check
// failed.
void ZV_ExpectPeerName(ZV_TlsStream& stream, const std::string& sHost)
{
    SSL* lpSsl = stream.native_handle();
    asio::error_code ec;
    asio::ip::make_address(sHost, ec);
    if (!ec)
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(lpSsl), sHost.c_str());
    else
    {
        SSL_set1_host(lpSsl, sHost.c_str());
        SSL_set_tlsext_host_name(lpSsl, sHost.c_str());
    }
}

ZV_ChannelBinding ZV_BindingOf(SSL* lpSsl)
{
    ZV_ChannelBinding binding;
    binding.bTls = true;
    // On TLS 1.2 the exporter binds the channel only with the extended
    // master secret; without it the login has nothing to bind to.
    if (SSL_version(lpSsl) < TLS1_3_VERSION && SSL_get_extms_support(lpSsl) != 1)
        return binding;
    unsigned char abValue[kExporterSize];
    if (SSL_export_keying_material(lpSsl, abValue, sizeof abValue, kExporterLabel, sizeof kExporterLabel - 1,
                                   nullptr, 0, 0) == 1)
        binding.sExporter.assign((const char*)abValue, sizeof abValue);
    return binding;
}

std::string ZV_TlsFailure(ZV_TlsStream& stream, const asio::error_code& ec, bool& bUntrusted)
{
    const long lVerify = SSL_get_verify_result(stream.native_handle());
    bUntrusted = ec.category() == asio::error::get_ssl_category() &&
                 ERR_GET_REASON(ec.value()) == SSL_R_CERTIFICATE_VERIFY_FAILED;
    if (bUntrusted && lVerify != X509_V_OK)
        return std::string("the peer's certificate is not trusted: ") + X509_verify_cert_error_string(lVerify);
    return "the TLS handshake failed: " + ec.message();
}
