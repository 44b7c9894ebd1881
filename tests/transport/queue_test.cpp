#include "transport/Queue.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <thread>
#include <vector>

#include "transport/comm.h"

namespace kvl {
namespace {

std::vector<uint8_t> Numbered(size_t count) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i % 251);
  return bytes;
}

bool Put(CQueue& queue, const std::vector<uint8_t>& bytes, CQueue::Zeros zeros) {
  return queue.PutBatch(bytes.data(), static_cast<int32_t>(bytes.size()), zeros);
}

std::vector<uint8_t> Drain(CQueue& queue) {
  std::vector<uint8_t> bytes(CQueue::kSlots);
  bytes.resize(static_cast<size_t>(queue.GetBatch(bytes.data(), CQueue::kSlots)));
  return bytes;
}

TEST(CQueueTest, FullQueueRefusesAndEmptyQueueLeavesTheByte) {
  CQueue queue;
  uint8_t byte = 0x5A;
  EXPECT_EQ(queue.GetByte(&byte), 0);
  EXPECT_EQ(byte, 0x5A);
  for (int i = 0; i < 8191; ++i) ASSERT_EQ(queue.PutByte(static_cast<uint8_t>(i)), 1);
  EXPECT_EQ(queue.PutByte(1), 0);
  EXPECT_EQ(queue.GetSize(), 8191);
  EXPECT_EQ(queue.GetByte(&byte), 1);
  EXPECT_EQ(byte, 0);
  EXPECT_EQ(queue.PutByte(1), 1);
  EXPECT_EQ(queue.PutByte(1), 0);
}

TEST(CQueueTest, IndexesWrap) {
  CQueue queue;
  for (int i = 0; i < 20000; ++i) {
    uint8_t byte = 0;
    ASSERT_EQ(queue.PutByte(static_cast<uint8_t>(i % 253)), 1);
    ASSERT_EQ(queue.GetByte(&byte), 1);
    ASSERT_EQ(byte, i % 253);
  }
  EXPECT_EQ(queue.GetSize(), 0);
  const std::vector<uint8_t> bytes = Numbered(8000);  // across the end of the ring
  EXPECT_TRUE(Put(queue, bytes, CQueue::Zeros::kKeep));
  EXPECT_EQ(Drain(queue), bytes);
}

TEST(CQueueTest, ReadIsStoredWholeOrDroppedWhole) {
  static constexpr struct {
    size_t held, read;
    bool bFits;
  } kCases[] = {{0, 8191, true},     {0, 8192, false},    {2000, 2048, true}, {6143, 2048, true},
                {6144, 2048, false}, {4096, 4096, false}, {8191, 1, false},   {8191, 0, true}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(testing::Message() << row.held << " held, " << row.read << " read");
    CQueue queue;
    ASSERT_TRUE(Put(queue, Numbered(row.held), CQueue::Zeros::kKeep));
    EXPECT_EQ(Put(queue, Numbered(row.read), CQueue::Zeros::kKeep), row.bFits);
    EXPECT_EQ(queue.GetSize(), row.held + (row.bFits ? row.read : 0));
    EXPECT_EQ(queue.GetDroppedReads(), row.bFits ? 0 : 1);
    EXPECT_EQ(queue.GetDroppedBytes(), row.bFits ? 0 : row.read);
  }
}

TEST(CQueueTest, ZerosAreLeftOutOnRequestButCountForTheRoom) {
  CQueue queue;
  EXPECT_TRUE(Put(queue, {0x41, 0, 0x42}, CQueue::Zeros::kDrop));
  EXPECT_EQ(Drain(queue), (std::vector<uint8_t>{0x41, 0x42}));
  EXPECT_TRUE(Put(queue, {0x41, 0, 0x42}, CQueue::Zeros::kKeep));
  EXPECT_EQ(Drain(queue), (std::vector<uint8_t>{0x41, 0, 0x42}));
  EXPECT_FALSE(Put(queue, std::vector<uint8_t>(8192, 0), CQueue::Zeros::kDrop));
}

TEST(CQueueTest, CopyHoldsTheSameBytesAndLeavesTheSource) {
  CQueue queue;
  Put(queue, Numbered(300), CQueue::Zeros::kKeep);
  CQueue copy;
  copy.PutByte(9);
  copy = queue;
  EXPECT_EQ(Drain(copy), Numbered(300));
  EXPECT_EQ(queue.GetSize(), 300);
  queue.Clear();
  EXPECT_EQ(queue.GetSize(), 0);
}

TEST(CQueueTest, ProducerAndConsumerMeetWithoutALock) {
  constexpr int kReads = 20000;
  CQueue queue;
  std::thread producer([&queue] {
    for (int i = 0; i < kReads; ++i) {
      // Each read repeats one value as often as the value says: a torn read would show.
      const std::vector<uint8_t> read(static_cast<size_t>(i % 100 + 1),
                                      static_cast<uint8_t>(i % 100 + 1));
      while (!Put(queue, read, CQueue::Zeros::kDrop)) std::this_thread::yield();
    }
  });
  for (int i = 0; i < kReads; ++i) {
    std::vector<uint8_t> read(static_cast<size_t>(i % 100 + 1));
    while (queue.GetSize() < static_cast<int32_t>(read.size())) std::this_thread::yield();
    queue.GetBatch(read.data(), static_cast<int32_t>(read.size()));
    ASSERT_EQ(read, std::vector<uint8_t>(read.size(), static_cast<uint8_t>(i % 100 + 1)));
  }
  producer.join();
}

TEST(CommTest, FieldsHaveTheirPlacesAndUnsetValues) {
  EXPECT_EQ(offsetof(COMM, szIP), 4U);
  EXPECT_EQ(offsetof(COMM, szPort), 24U);
  EXPECT_EQ(offsetof(COMM, nBaudRate), 32U);
  EXPECT_EQ(sizeof(COMM), 48U);
  const COMM comm;
  EXPECT_EQ(comm.nMedia, 0);
  EXPECT_EQ(comm.nStopBit, -1);
}

}  // namespace
}  // namespace kvl
