// Every public header, in one program that decodes a batch.
#include <kvl/control/DecodeCtrl.h>
#include <kvl/control/sync_notify.h>
#include <kvl/platform/message_loop.h>
#include <kvl/platform/text_encoding.h>
#include <kvl/script/KVL.h>
#include <kvl/store/SharedMemory.h>
#include <kvl/store/TableOwner.h>
#include <kvl/store/kvl_table.h>
#include <kvl/transport/Queue.h>
#include <kvl/transport/RS232Ctrl.h>
#include <kvl/transport/Sockets.h>
#include <kvl/verifier/KVLSyntax.h>
#include <cstdio>

namespace {

class COwner : public kvl::CEngineOwner {
 public:
  void Pause(int32_t /*milliseconds*/, kvl::EPause /*reason*/) override {}
  void Sync(int32_t value) override { std::printf("sync %d\n", value); }
};

}  // namespace

int main() {
  COwner owner;
  kvl::CKVL engine(&owner, "");
  engine._CompileMainScript1(
      engine.LoadText("DIM B$ 8\nVAR N% 0\nBEGIN:\nIN B, N\nSYNC 7\nEND:\n"));
  const uint8_t batch[] = {'a', 'b', 'c'};
  engine.Begin(batch, sizeof batch);
  std::printf("%g %s\n", engine.GetBufferValue("N"), kvl::Utf8FromCp949("\xB0\xA1").c_str());
}
