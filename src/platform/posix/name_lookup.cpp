#include "platform/posix/name_lookup.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "platform/never_destroyed.h"
#include "platform/thread.h"

namespace kvl {

namespace {

struct CAnswer {
  std::error_code ec;
  std::vector<asio::ip::address> addresses;
};

struct CWaiting {
  std::shared_ptr<CLoopCore> pLoop;
  FTakeAddresses take;
};

struct CLookups {
  std::mutex lock;
  std::map<std::string, std::vector<CWaiting>> names;
};

// Never destroyed: a look-up may outlast everything else.
CLookups& Lookups() {
  static CNeverDestroyed<CLookups> s_lookups;
  return s_lookups.Get();
}

// Null for no memory.
std::shared_ptr<const CAnswer> AnswerFor(const std::string& name) try {
  auto pAnswer = std::make_shared<CAnswer>();
  asio::io_context io;
  for (const auto& entry : asio::ip::tcp::resolver(io).resolve(name, "", pAnswer->ec)) {
    pAnswer->addresses.push_back(entry.endpoint().address());
  }
  return pAnswer;
} catch (const std::exception&) {
  return nullptr;
}

void LookUp(const std::string& name) noexcept {
  SetThreadName("kvl look-up");
  const std::shared_ptr<const CAnswer> pAnswer = AnswerFor(name);
  decltype(CLookups::names)::node_type answered;
  {
    CLookups& lookups = Lookups();
    const std::lock_guard guard(lookups.lock);
    answered = lookups.names.extract(name);
  }
  for (CWaiting& waiting : answered.mapped()) {
    // Moved, so that what the taker keeps alive is let go of on its own thread.
    waiting.pLoop->PostUncounted([take = std::move(waiting.take), pAnswer] {
      if (!pAnswer) return take(asio::error::no_memory, {});
      take(pAnswer->ec, pAnswer->addresses);
    });
  }
}

}  // namespace

void LookUpName(const std::string& name, std::shared_ptr<CLoopCore> pLoop, FTakeAddresses take) {
  CLookups& lookups = Lookups();
  const std::lock_guard guard(lookups.lock);
  const auto [entry, isNew] = lookups.names.try_emplace(name);
  try {
    entry->second.push_back({std::move(pLoop), std::move(take)});
    if (isNew) std::thread([name] { LookUp(name); }).detach();
  } catch (...) {
    if (isNew) lookups.names.erase(entry);  // nobody would ever answer it
    throw;
  }
}

}  // namespace kvl
