// The shape of the two records: field order, widths and offsets, which other programs rely on.

#include <cstddef>
#include <type_traits>

#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskStream;

static_assert(!std::is_polymorphic_v<VeskBuffer> && !std::is_polymorphic_v<VeskStream>);
static_assert(std::is_standard_layout_v<VeskBuffer>);

TEST(LayoutTest, BlockFieldsStandWhereOtherProgramsLookForThem) {
  EXPECT_EQ(offsetof(VeskBuffer, skip), 0u);
  EXPECT_EQ(offsetof(VeskBuffer, ltime), 4u);
  EXPECT_EQ(offsetof(VeskBuffer, size), 8u);
  EXPECT_EQ(offsetof(VeskBuffer, state), 12u);
  EXPECT_EQ(offsetof(VeskBuffer, bptr), 16u);
  EXPECT_EQ(offsetof(VeskBuffer, off), 24u);
  EXPECT_EQ(offsetof(VeskBuffer, dlen), 32u);
  EXPECT_EQ(offsetof(VeskBuffer, blen), 36u);
  EXPECT_EQ(offsetof(VeskBuffer, dirty_length), 40u);
  EXPECT_EQ(offsetof(VeskBuffer, rc), 44u);
  EXPECT_EQ(offsetof(VeskBuffer, job), 48u);
  EXPECT_EQ(sizeof(VeskBuffer), 56u);
}

TEST(LayoutTest, StateBitsHaveTheirNumbers) {
  EXPECT_EQ(VeskBuffer::INV, 1u);
  EXPECT_EQ(VeskBuffer::DIRTY, 2u);
  EXPECT_EQ(VeskBuffer::VALID, 4u);
  EXPECT_EQ(VeskBuffer::IOR, 8u);
  EXPECT_EQ(VeskBuffer::IOW, 16u);
  EXPECT_EQ(VeskBuffer::END_OF_FILE, 32u);
}

TEST_F(ModuleTest, NewBlockIsValidWithoutData) {
  VeskBuffer block(4096, 512);
  block.Dump();
  ExpectLog({"Dump 121 Dump BUFFER(" + P(&block) + ") bptr:" + P(block.bptr) +
             " size:512 state:4(VALID) off:4096 dlen:0 blen:512 skip:0 ltime:0 rc:0 job:" +
             P(nullptr) + " dirty_length=0\n"});
}

}  // namespace
}  // namespace vesk_test
