// A Lua as a contestant. Compiled once against each Lua, into a module of its own, so that both
// live in one process without seeing each other's symbols.
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>

#include "bench/peer.h"

extern "C" {
#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>
}

namespace kvl::bench {
namespace {

#if LUA_VERSION_NUM >= 503
constexpr char kXor[] = "($1 ~ $2)";
#else
constexpr char kXor[] = "bit.bxor($1, $2)";
#endif

std::string ReadSource(const char* path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(std::string("can't read ") + path);
  const std::string source(std::istreambuf_iterator<char>(file), {});
  return std::regex_replace(source, std::regex(R"(XOR\((\w+), (\w+)\))"), kXor);
}

class CLuaPeer : public CPeer {
 public:
  explicit CLuaPeer(const char* path) : m_pLua(luaL_newstate()) {
    luaL_openlibs(m_pLua);
    lua_pushlightuserdata(m_pLua, this);
    lua_pushcclosure(m_pLua, Send, 1);
    lua_setglobal(m_pLua, "send");
    const std::string source = ReadSource(path);
    if (luaL_loadstring(m_pLua, source.c_str()) != 0 || lua_pcall(m_pLua, 0, 1, 0) != 0) {
      throw std::runtime_error(lua_tostring(m_pLua, -1));
    }
  }
  ~CLuaPeer() override { lua_close(m_pLua); }
  CLuaPeer(const CLuaPeer&) = delete;
  CLuaPeer& operator=(const CLuaPeer&) = delete;

  // The function stays at the bottom of the stack, its results above it.
  void Run(std::span<const uint8_t> batch) override {
    lua_settop(m_pLua, 1);
    lua_pushvalue(m_pLua, 1);
    lua_pushlstring(m_pLua, reinterpret_cast<const char*>(batch.data()), batch.size());
    if (lua_pcall(m_pLua, 1, LUA_MULTRET, 0) != 0) {
      throw std::runtime_error(lua_tostring(m_pLua, -1));
    }
  }

  CFound Found() override {
    CFound found;
    found.m_strText = m_strSent;
    for (int i = 2; i <= lua_gettop(m_pLua); ++i) {
      if (lua_type(m_pLua, i) == LUA_TNUMBER) {
        found.m_numbers.push_back(lua_tonumber(m_pLua, i));
      } else {
        found.m_strText = lua_tostring(m_pLua, i);
      }
    }
    return found;
  }

 private:
  static int Send(lua_State* lua) {
    auto* peer = static_cast<CLuaPeer*>(lua_touserdata(lua, lua_upvalueindex(1)));
    size_t size = 0;
    const char* const bytes = lua_tolstring(lua, 1, &size);
    peer->m_strSent.assign(bytes, size);
    return 0;
  }

  lua_State* const m_pLua;
  std::string m_strSent;
};

}  // namespace

extern "C" [[gnu::visibility("default")]] CPeer* OpenPeer(const char* path) {
  return new CLuaPeer(path);
}

}  // namespace kvl::bench
