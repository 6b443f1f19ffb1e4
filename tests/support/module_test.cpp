#include "tests/support/module_test.h"

#include <cstdarg>
#include <cstdio>

namespace vesk_test {

using vesk::VeskBuffer;
using vesk::VeskStream;

std::string Text(const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

ModuleTest::ModuleTest() {
  env.thread_pool = pool.get();
  env.logger = &logger;
  env.settings = &settings;
  vesk::gEnv = &env;
  clock_now = kStart;
  clock_reads = 0;
}

ModuleTest::~ModuleTest() { vesk::gEnv = nullptr; }

std::unique_ptr<VeskBuffer> ModuleTest::Block(unsigned long off, unsigned int blen,
                                              unsigned int dlen, unsigned int state) {
  auto block = std::make_unique<VeskBuffer>(off, blen);
  for (unsigned int i = 0; i < blen; ++i) block->bptr[i] = FileByte(off + i);
  block->dlen = dlen;
  block->state = state;
  block->ltime = kStart;
  return block;
}

VeskBuffer* ModuleTest::Add(VeskStream& stream, unsigned long off, unsigned int blen,
                            unsigned int dlen, unsigned int state) {
  stream.buffers.push_back(Block(off, blen, dlen, state).release());
  VeskBuffer* const block = stream.buffers.back();
  if ((state & VeskBuffer::DIRTY) != 0) block->dirty_length = dlen;
  return block;
}

VeskBuffer* ModuleTest::AddBusy(VeskStream& stream, unsigned long off, unsigned int blen,
                                unsigned int dlen, unsigned int state) {
  VeskBuffer* const block = Add(stream, off, blen, dlen, state);
  const bool write = (state & VeskBuffer::IOW) != 0;
  auto* const op = new vesk::VeskOP(write ? vesk::OPCODE_WRITE : vesk::OPCODE_READ, 0);
  op->AddString(stream.name);
  op->AddPtr(block->bptr);
  if (write) {
    op->AddULong(block->dlen);
    op->AddULong(off);
    op->AddInt(1);
  } else {
    op->AddInt(static_cast<int>(block->blen));
    op->AddULong(off);
    op->AddPtr(&block->dlen);
  }
  block->job = new vesk::VeskJob(vesk::JOB_TYPE_IO, op);
  stream.bundler->SubmitJob(block->job);
  return block;
}

void ModuleTest::Clean(VeskBuffer& block) {
  block.state = VeskBuffer::VALID;
  if (block.job != nullptr) vesk::VeskJob::RefCountDec(block.job);
  block.job = nullptr;
}

void ModuleTest::Clean(VeskStream& stream) {
  for (VeskBuffer* block : stream.buffers) Clean(*block);
}

unsigned char ModuleTest::FileByte(unsigned long offset) {
  return static_cast<unsigned char>((offset * 131 + offset / 251) & 0xff);
}

int ModuleTest::Thrown(const std::function<void()>& call) {
  try {
    call();
  } catch (const vesk::VeskException& thrown) {
    return thrown.code;
  }
  ADD_FAILURE() << "nothing was thrown";
  return -1;
}

void ModuleTest::ExpectLog(const Lines& expected) {
  EXPECT_EQ(logger.lines, expected);
  logger.lines.clear();
}

ModuleTest::Lines ModuleTest::Assertion(int site, const std::string& message) {
  const std::string head = "Error " + std::to_string(site) + " ";
  return {head + "ASSERT failure::\n", head + message, head + "\n\n"};
}

void ModuleTest::ExpectAssertion(int site, const std::string& message,
                                 const std::function<void()>& call, const Lines& before) {
  logger.lines.clear();
  EXPECT_EQ(Thrown(call), 1001);
  ExpectLog(Join({before, Assertion(site, message)}));
}

std::string ModuleTest::P(const void* pointer) { return Text("%p", pointer); }

ModuleTest::Lines ModuleTest::Join(const std::vector<Lines>& parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

OneStreamTest::~OneStreamTest() {
  stream.buffers.remove(nullptr);
  Clean(stream);
}

void OneStreamTest::Cover(unsigned long off, long len, unsigned long pos) {
  stream.curr_off = off;
  stream.curr_len = len;
  stream.curr_pos = pos;
}

void OneStreamTest::ExpectRange(unsigned long off, long len, unsigned long pos) const {
  EXPECT_EQ(stream.curr_off, off);
  EXPECT_EQ(stream.curr_len, len);
  EXPECT_EQ(stream.curr_pos, pos);
}

}  // namespace vesk_test
