#include "cli/files.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <system_error>

#include "cli/commands.h"

namespace kvl::cli {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void Refuse(const std::string& path, const std::string& why) {
  throw CCommandError(kFailed, fmt::format("'{}' can't be written: {}", path, why));
}

}  // namespace

void CreateFile(const std::string& path, std::string_view text) {
  std::FILE* file = std::fopen(path.c_str(), "wbx");
  if (file == nullptr) Refuse(path, std::generic_category().message(errno));
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  const bool closed = std::fclose(file) == 0;
  if (written && closed) return;
  const std::string why = std::generic_category().message(errno);
  std::error_code ignored;
  fs::remove(path, ignored);
  Refuse(path, why);
}

void ReplaceFile(const std::string& path, std::string_view text) {
  std::error_code error;
  const fs::path target = fs::weakly_canonical(path, error);
  if (error) Refuse(path, error.message());
  const fs::file_status status = fs::status(target, error);
  if (fs::exists(status) && !fs::is_regular_file(status)) Refuse(path, "it is no regular file");
  const fs::path fresh = fmt::format("{}.{:08x}.tmp", target.string(), std::random_device()());
  CreateFile(fresh.string(), text);
  error.clear();
  if (fs::exists(status)) fs::permissions(fresh, status.permissions(), error);
  if (!error) fs::rename(fresh, target, error);
  if (!error) return;
  std::error_code ignored;
  fs::remove(fresh, ignored);
  Refuse(path, error.message());
}

}  // namespace kvl::cli
