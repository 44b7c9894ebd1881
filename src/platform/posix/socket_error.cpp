#include "platform/posix/socket_error.h"

#include <asio/error.hpp>
#include <cerrno>

namespace kvl {

namespace {

struct CodePair {
  int system;
  int32_t code;
};

constexpr CodePair kSystemCodes[] = {
    {EPERM, 10013},         {EACCES, 10013},       {EFAULT, 10014},       {EINVAL, 10022},
    {EMFILE, 10024},        {ENFILE, 10024},       {EAGAIN, 10035},       {EINPROGRESS, 10036},
    {EALREADY, 10037},      {ENOTSOCK, 10038},     {EBADF, 10038},        {EDESTADDRREQ, 10039},
    {EMSGSIZE, 10040},      {EPROTOTYPE, 10041},   {ENOPROTOOPT, 10042},  {EPROTONOSUPPORT, 10043},
    {EOPNOTSUPP, 10045},    {EPFNOSUPPORT, 10046}, {EAFNOSUPPORT, 10047}, {EADDRINUSE, 10048},
    {EADDRNOTAVAIL, 10049}, {ENETDOWN, 10050},     {ENETUNREACH, 10051},  {ENETRESET, 10052},
    {ECONNABORTED, 10053},  {EPIPE, 10053},        {ECONNRESET, 10054},   {ENOBUFS, 10055},
    {ENOMEM, 10055},        {EISCONN, 10056},      {ENOTCONN, 10057},     {ESHUTDOWN, 10058},
    {ETIMEDOUT, 10060},     {ECONNREFUSED, 10061}, {EHOSTDOWN, 10064},    {EHOSTUNREACH, 10065},
};

constexpr CodePair kResolverCodes[] = {
    {asio::error::host_not_found, 11001},
    {asio::error::host_not_found_try_again, 11002},
    {asio::error::no_recovery, 11003},
    {asio::error::no_data, 11004},
};

// "A system call that should never fail has failed."
constexpr int32_t kOtherFailure = 10107;

template <size_t kCount>
int32_t Find(const CodePair (&codes)[kCount], int value) {
  for (const CodePair& pair : codes) {
    if (pair.system == value) return pair.code;
  }
  return kOtherFailure;
}

thread_local int32_t t_nLastError = 0;

}  // namespace

int32_t FailSocket(int32_t nCode, int32_t nResult) {
  t_nLastError = nCode;
  return nResult;
}

int32_t LastSocketError() {
  return t_nLastError;
}

int32_t SocketErrorCode(const std::error_code& error) {
  if (!error) return 0;
  if (error.category() == asio::error::get_netdb_category()) {
    return Find(kResolverCodes, error.value());
  }
  if (error.category() == asio::error::get_system_category()) {
    return Find(kSystemCodes, error.value());
  }
  return kOtherFailure;
}

}  // namespace kvl
