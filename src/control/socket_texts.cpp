#include "control/socket_texts.h"

#include <span>

namespace kvl {
namespace {

struct CCodeText {
  int32_t m_nCode;
  std::string_view m_text;
};

constexpr CCodeText kConnectTexts[] = {
    {10014, "The lpSockAddrLen argument is incorrect."},
    {10022, "The socket is already bound to an address."},
    {10024, "No more file descriptors are available."},
    {10038, "The descriptor is a file, not a socket."},
    {10039, "A destination address is required."},
    {10047, "Addresses in the specified family cannot be used with this socket."},
    {10048, "The specified address is already in use."},
    {10049, "The specified address is not available from the local machine."},
    {10051, "The network cannot be reached from this host at this time."},
    {10055, "No buffer space is available. The socket cannot be connected."},
    {10056, "The socket is already connected."},
    {10057, "The socket is not connected."},
    {10060, "The attempt to connect timed out without establishing a connection."},
    {10061, "The attempt to connect was forcefully rejected."},
};

constexpr CCodeText kCloseTexts[] = {
    {10050, "The Windows Sockets implementation detected that the network subsystem failed."},
    {10053, "The connection was aborted due to timeout or other failure. "},
    {10054, "The connection was reset by the remote side."},
};

constexpr CCodeText kNameTexts[] = {
    {11001, "The name of the host is not known."},
    {11002, "No name server answers."},
    {11003, "The name server has failed."},
    {11004, "The name of the host has no address."},
};

std::string_view Find(std::span<const CCodeText> texts, int32_t code) {
  for (const CCodeText& text : texts) {
    if (text.m_nCode == code) return text.m_text;
  }
  return {};
}

}  // namespace

std::string_view ConnectErrorText(int32_t code) {
  return Find(kConnectTexts, code);
}

std::string_view CloseErrorText(int32_t code) {
  return Find(kCloseTexts, code);
}

std::string OtherErrorText(int32_t code) {
  const std::string_view text = Find(kNameTexts, code);
  return text.empty() ? "Socket error " + std::to_string(code) + "." : std::string(text);
}

}  // namespace kvl
