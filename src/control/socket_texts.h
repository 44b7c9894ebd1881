// What the error codes of the socket layer say to a person.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kvl {

// Of a connect attempt, and of a connection that ended. Empty for a code without a text.
std::string_view ConnectErrorText(int32_t code);
std::string_view CloseErrorText(int32_t code);

// Of a connect whose code has no text above.
std::string OtherErrorText(int32_t code);

}  // namespace kvl
