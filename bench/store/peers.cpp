#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "measure.h"

#ifdef BENCH_LMDB
#include <lmdb.h>
#endif
#ifdef BENCH_REDIS
#include <hiredis/hiredis.h>
#endif

namespace {

// A folder that is gone with the object.
class CTemporaryFolder {
 public:
  CTemporaryFolder() { Require(mkdtemp(m_szPath) != nullptr, "no temporary folder"); }
  ~CTemporaryFolder() {
    for (const char* szFile : {"/data.mdb", "/lock.mdb", "/redis.sock"}) {
      unlink((m_szPath + std::string(szFile)).c_str());
    }
    rmdir(m_szPath);
  }
  std::string Path() const { return m_szPath; }

 private:
  char m_szPath[32] = "/dev/shm/store_bench_XXXXXX";
};

}  // namespace

#ifdef BENCH_LMDB
namespace {

// Each access is a transaction of its own, as each PUT and GET is; nothing waits for a disk.
class CLmdb : public CPeer {
 public:
  explicit CLmdb(bool bWriteMap) {
    mdb_env_create(&m_pEnv);
    mdb_env_set_mapsize(m_pEnv, 10 << 20);
    const unsigned nFlags = MDB_NOSYNC | (bWriteMap ? MDB_WRITEMAP : 0);
    Require(mdb_env_open(m_pEnv, m_folder.Path().c_str(), nFlags, 0600) == 0 &&
                mdb_txn_begin(m_pEnv, nullptr, 0, &m_pTransaction) == 0 &&
                mdb_dbi_open(m_pTransaction, nullptr, 0, &m_table) == 0 &&
                mdb_txn_commit(m_pTransaction) == 0,
            "LMDB does not open");
  }
  ~CLmdb() override { mdb_env_close(m_pEnv); }

  void Put(float value) override {
    MDB_val data{sizeof value, &value};
    mdb_txn_begin(m_pEnv, nullptr, 0, &m_pTransaction);
    mdb_put(m_pTransaction, m_table, &m_key, &data, 0);
    mdb_txn_commit(m_pTransaction);
  }
  float Get() override {
    float value = 0;
    MDB_val data{0, nullptr};
    mdb_txn_begin(m_pEnv, nullptr, MDB_RDONLY, &m_pTransaction);
    if (mdb_get(m_pTransaction, m_table, &m_key, &data) == 0) {
      memcpy(&value, data.mv_data, sizeof value);
    }
    mdb_txn_abort(m_pTransaction);
    return value;
  }

 private:
  const CTemporaryFolder m_folder;
  MDB_env* m_pEnv = nullptr;
  MDB_txn* m_pTransaction = nullptr;
  MDB_dbi m_table = 0;
  char m_szKey[6] = "LEVEL";
  MDB_val m_key{5, m_szKey};
};

}  // namespace

std::unique_ptr<CPeer> OpenLmdb(bool bWriteMap) {
  return std::make_unique<CLmdb>(bWriteMap);
}
#else
std::unique_ptr<CPeer> OpenLmdb(bool) {
  puts("SKIPPED: LMDB is not installed (scripts/setup --bench)");
  return nullptr;
}
#endif

#ifdef BENCH_REDIS
namespace {

// A server of our own on a unix socket, stopped with the object.
class CRedis : public CPeer {
 public:
  CRedis() : m_nServer(fork()) {
    if (m_nServer == 0) Serve();
    for (int nTry = 0; nTry < 200 && m_pRedis == nullptr; ++nTry) {
      m_pRedis = redisConnectUnix(Socket().c_str());
      if (m_pRedis != nullptr && m_pRedis->err == 0) return;
      if (m_pRedis != nullptr) redisFree(m_pRedis);
      m_pRedis = nullptr;
      usleep(20000);
    }
  }
  ~CRedis() override {
    if (m_pRedis != nullptr) redisFree(m_pRedis);
    if (m_nServer <= 0) return;
    kill(m_nServer, SIGTERM);
    waitpid(m_nServer, nullptr, 0);
  }
  bool IsOpen() const { return m_pRedis != nullptr; }

  void Put(float value) override {
    freeReplyObject(redisCommand(m_pRedis, "SET LEVEL %b", &value, sizeof value));
  }
  float Get() override {
    float value = 0;
    auto* pReply = static_cast<redisReply*>(redisCommand(m_pRedis, "GET LEVEL"));
    if (pReply != nullptr && pReply->len == sizeof value) memcpy(&value, pReply->str, sizeof value);
    freeReplyObject(pReply);
    return value;
  }

 private:
  std::string Socket() const { return m_folder.Path() + "/redis.sock"; }
  [[noreturn]] void Serve() const {
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(127);
    execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", Socket().c_str(),
           "--save", "", "--appendonly", "no", "--dir", m_folder.Path().c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }

  const CTemporaryFolder m_folder;
  const pid_t m_nServer;
  redisContext* m_pRedis = nullptr;
};

}  // namespace

std::unique_ptr<CPeer> OpenRedis() {
  auto pRedis = std::make_unique<CRedis>();
  if (pRedis->IsOpen()) return pRedis;
  puts("SKIPPED: redis-server does not start (scripts/setup --bench)");
  return nullptr;
}
#else
std::unique_ptr<CPeer> OpenRedis() {
  puts("SKIPPED: hiredis is not installed (scripts/setup --bench)");
  return nullptr;
}
#endif
