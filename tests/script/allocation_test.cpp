// A pass takes nothing from the heap, but for the messages of PRINT.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "script/KVL.h"
#include "store/TableOwner.h"

namespace {
std::atomic<int> g_nAllocations{0};
}  // namespace

void* operator new(size_t size) {
  ++g_nAllocations;
  if (void* block = std::malloc(size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t /*size*/) noexcept {
  std::free(block);
}

namespace kvl {
namespace {

class CQuietOwner : public CEngineOwner {
 public:
  void Pause(int32_t /*milliseconds*/, EPause /*reason*/) override {}
  void Sync(int32_t /*value*/) override {}
};

// The allocations of the second pass; the first one binds the script.
int AllocationsOf(const std::string& main, const char* table = "") {
  CQuietOwner owner;
  CKVL engine(&owner, table, EAudience::kThisProcess);
  const std::string script =
      "DIM BUF$ 300\nDIM WIDE% 4\nDIM REAL# 4\nVAR N% 0\nVAR I% 1\nVAR B$ 0\nVAR D# 0\n"
      "EQU TEXT \"12.5,abc<41>\"\nEQU TL \"L\"\nEQU TT \"T\"\nBEGIN:\n" +
      main + "\nEND:\n";
  engine._CompileMainScript1(engine.LoadText(script));
  const std::string batch(200, '7');
  const auto* const bytes = reinterpret_cast<const uint8_t*>(batch.data());
  engine.Begin(bytes, 200);
  const int before = g_nAllocations;
  engine.Begin(bytes, 200);
  return g_nAllocations - before;
}

TEST(AllocationTest, NoInstructionAllocates) {
  const char* const families[] = {
      "IN BUF, N",
      "IN BUF, N\nFIND BUF, \"7\", N\nFIND BUF, \"77<41>\", N\nFIND BUF, \"\", N",
      "MOVE N, WIDE[I+1]\nMOVE D, REAL[WIDE[I]]\nMOVE B, BUF[N-1]\nMOVE D, 1E300",
      "ADD N, D\nSUB D, N\nAND N, 0FFH\nOR B, 101B\nXOR N, B\nNOT N\nINC D\nDEC B",
      "CMP N, BUF[D+I]\nJPE END\nCMP D, 2.5\nJPNE L\nL:\nJPL L2\nL2:\nJP L3\nL3:",
      "MOVE I, 0\nNEXT:\nMOVE B, BUF[I]\nXOR N, B\nINC I\nCMP I, 100\nJPL NEXT",
      "COPY BUF, TEXT, 12\nCOPY BUF[2], BUF, 40\nCOPY WIDE, \"abc\", I\nCOPY BUF[I], TEXT, 0",
      "CAT BUF, \"abc\", N\nCAT BUF, BUF, N\nCLEAR BUF\nCLEAR D\nCONV D, TEXT, 4",
      "CONV D, TEXT[I], 200\nCOPY BUF, \"1234567890123456789012345e-400\", 30\nCONV D, BUF, 30",
      "OUT \"a<0D>\"\nDELAY 5\nOUT TEXT\nOUT BUF\nDELAY 0\nSLEEP 0",
      "SYNC 1\nPUT TEXT, 5\nPUT TEXT, TEXT, 3\nGET N, TEXT",
  };
  for (const char* main : families) EXPECT_EQ(AllocationsOf(main), 0) << main;
}

TEST(AllocationTest, NoPutAndNoGetAllocates) {
  CTagSet tags;
  ASSERT_EQ(tags.Add("L", kTagInteger, 4), nullptr);
  ASSERT_EQ(tags.Add("T", kTagText, 300), nullptr);
  CTableOwner table("TAGS", EAudience::kThisProcess);
  ASSERT_TRUE(table.Create(tags, false));
  const CNamedEvent event("L_Event", EAudience::kThisProcess);  // as a reader who follows it
  EXPECT_EQ(AllocationsOf("INC I\nPUT TL, I\nPUT TT, TEXT, 255\nPUT TT, 12.5\nPUT TL, TEXT\n"
                          "PUT TEXT, 1\nGET N, TL\nGET BUF, TT, 255\nGET N, TEXT\n"
                          "COPY BUF, TL, 1\nPUT BUF, I",
                          "TAGS"),
            0);
  EXPECT_EQ(event.SetCount(), 4u);
  CTableOwner::Remove("TAGS", EAudience::kThisProcess);
}

// So that the count above means something.
TEST(AllocationTest, AMessageIsCounted) {
  EXPECT_GT(AllocationsOf("PRINT \"a message that is too long to live inside a string object\""),
            0);
}

}  // namespace
}  // namespace kvl
