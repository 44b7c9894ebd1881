// The verifier when memory runs out.
#include <gtest/gtest.h>

#include "support/failing_new.h"
#include "verifier/test_verifier.h"

namespace kvl {
namespace {

// Whatever allocation fails, no exception leaves the verifier and the script is refused.
TEST(VerifierMemoryTest, WithoutMemoryTheScriptIsRefused) {
  const std::string text = "VAR A_NAME_THAT_IS_ALLOCATED% 0\nDIM BUF$ 10\n" +
                           std::string("BEGIN:\nADD BUF, BUF[A_NAME_THAT_IS_ALLOCATED+1]\nEND:\n");
  Verify(text);  // what is made once is made
  t_bAllocationFailed = true;
  for (int left = 0; t_bAllocationFailed; ++left) {
    CKVLSyntax syntax;
    t_bAllocationFailed = false;
    t_nAllocationsLeft = left;
    syntax._CompileMainScript1(syntax.LoadText(text));
    syntax._VerifyMainScript();
    t_nAllocationsLeft = -1;
    EXPECT_EQ(syntax.GetErrorCount() > 0, t_bAllocationFailed) << left;
  }
}

}  // namespace
}  // namespace kvl
