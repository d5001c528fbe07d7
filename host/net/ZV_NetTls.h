// ZV_NetTls: TLS of the network host, on Asio's OpenSSL layer. TLS 1.2 is
// the least either side speaks. The accepting side shows a certificate; the
// dialling side takes the peer's certificate only when it leads to one of
// its trust file and names the host it dialled (a DNS name, or the IP
// address when it dialled an address).
#pragma once

#include "ZV_NetLogin.h"

#include <asio.hpp>
#include <asio/ssl.hpp>

#include <memory>
#include <string>

using ZV_TlsStream = asio::ssl::stream<asio::ip::tcp::socket>;

// Null with the reason in sError when a file can't be read or the key does
// not fit the certificate.
std::shared_ptr<asio::ssl::context> ZV_MakeServerTls(const std::string& sCertificate, const std::string& sPrivateKey,
                                                     std::string& sError);
std::shared_ptr<asio::ssl::context> ZV_MakeClientTls(const std::string& sTrust, std::string& sError);

// The dialling side's check of the name, set before its handshake.
void ZV_ExpectPeerName(ZV_TlsStream& stream, const std::string& sHost);
// After a handshake: the channel's binding for a login on it.
ZV_ChannelBinding ZV_BindingOf(SSL* lpSsl);
// Why a handshake failed, in words; bUntrusted when the peer's certificate
// was what failed.
std::string ZV_TlsFailure(ZV_TlsStream& stream, const asio::error_code& ec, bool& bUntrusted);
