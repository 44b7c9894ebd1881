// Finds the addresses of a host's name.
#pragma once

#include <asio/ip/address.hpp>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "platform/loop_core.h"

namespace kvl {

using FTakeAddresses =
    std::function<void(const std::error_code&, const std::vector<asio::ip::address>&)>;

// Has `take` called on the loop's thread with the name's addresses, or with the reason why there
// are none; not at all if the loop ends first. The system's own look-up can't be broken off, and
// takes as long as its name servers do: so each name has a thread to itself that nobody waits for,
// and who asks for a name that is being looked up already shares the answer.
// Throws a std::exception if the system gives no thread or no memory.
void LookUpName(const std::string& name, std::shared_ptr<CLoopCore> pLoop, FTakeAddresses take);

}  // namespace kvl
