// Peak heap of decoding the costliest shapes of input under the size cap.
// The cap counts what decoding allocates, so however the bytes are arranged
// the peak stays under twice the cap, and all of it goes back with the value
// and the stream.  Every allocation of this program passes through the C
// allocator's entry points below, which count the chunks they hand out;
// under a sanitizer, whose allocator they would bypass, the test is skipped.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "net/cat/io.h"
#include "platform/scoped_fd.h"
#include "tests/stream/stream_test_util.h"

// Bytes in the allocator's chunks (their headers included): now, and the
// most since the last reset.
static int64_t g_live = 0, g_peak = 0;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VESTA_COUNT_ALLOCATIONS 0
#else
#define VESTA_COUNT_ALLOCATIONS 1

extern "C" {
void* __libc_malloc(size_t n);
void* __libc_calloc(size_t n, size_t size);
void* __libc_realloc(void* p, size_t n);
void* __libc_memalign(size_t alignment, size_t n);
void __libc_free(void* p);
}

namespace {

int64_t ChunkBytes(void* p) {
  return p != nullptr ? static_cast<int64_t>(malloc_usable_size(p) + sizeof(size_t)) : 0;
}

void* Counted(void* p) {
  g_live += ChunkBytes(p);
  if (g_live > g_peak) g_peak = g_live;
  return p;
}

}  // namespace

extern "C" {
void* malloc(size_t n) { return Counted(__libc_malloc(n)); }
void* calloc(size_t n, size_t size) { return Counted(__libc_calloc(n, size)); }
void* memalign(size_t alignment, size_t n) { return Counted(__libc_memalign(alignment, n)); }
void* aligned_alloc(size_t alignment, size_t n) { return memalign(alignment, n); }
int posix_memalign(void** out, size_t alignment, size_t n) {
  void* p = memalign(alignment, n);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}
void free(void* p) {
  g_live -= ChunkBytes(p);
  __libc_free(p);
}
// Counted as if the new chunk came before the old one went.
void* realloc(void* p, size_t n) {
  const int64_t old = ChunkBytes(p);
  void* q = __libc_realloc(p, n);
  if (q == nullptr && n != 0) return nullptr;  // the old chunk stays
  Counted(q);
  g_live -= old;
  return q;
}
}
#endif

namespace {

// The cap of a request on the monitor's socket and of a remote server's
// reply.
constexpr int64_t kCap = 16 << 20;

std::string Repeat(const std::string& unit, size_t n) {
  std::string out;
  out.reserve(unit.size() * n);
  for (size_t i = 0; i < n; ++i) out += unit;
  return out;
}

std::string ArrayOf(const std::string& elements) { return Hex("41") + elements + Hex("40"); }

std::string Key(int i) {
  char key[16];
  snprintf(key, sizeof(key), "k%07d", i);
  return key;
}

TEST(PStreamMemoryTest, PeakHeapOfTheCostliestShapesStaysUnderTwiceTheCap) {
  if (!VESTA_COUNT_ALLOCATIONS) GTEST_SKIP() << "a sanitizer owns the allocator";
  std::string reverse_keys = Hex("42"), merges = Hex("42"), changes = Hex("42");
  std::string long_keys = Hex("42"), deep_long_keys;
  for (int i = 400000; i > 0; --i) reverse_keys += WireString(Key(i)) + Hex("00 00");
  for (int i = 0; i < 300000; ++i) {
    merges += WireString("k") + Hex("42") + WireString(Key(i)) + Hex("00 00 40");
    changes += WireString("k") + WireString(std::string(40, 's')) + WireString("k") + Hex("42 40");
  }
  for (int i = 0; i < 300; ++i) long_keys += WireString(Key(i) + std::string(65527, 'k')) + Hex("00 00");
  for (int i = 0; i < 127; ++i) deep_long_keys += Hex("42") + WireString(std::string(65535, 'a' + i % 26));
  const struct {
    const char* shape;
    std::string bytes;  // more than the cap lets through
  } kShapes[] = {
      {"15-byte strings holding a zero byte",
       ArrayOf(Repeat(WireString(std::string(1, '\0') + std::string(14, 'z')), 400000))},
      {"nulls", ArrayOf(Repeat(Hex("00 00"), 1000000))},
      {"keys in reverse order", reverse_keys + Hex("40")},
      {"a repeated key merging maps", merges + Hex("40")},
      {"a repeated key changing kind", changes + Hex("40")},
      {"3 million empty arrays", ArrayOf(Repeat(Hex("41 40"), 3000000))},
      {"arrays nested 127 deep",
       ArrayOf(Repeat(std::string(127, '\x41') + std::string(127, '\x40'), 2000))},
      {"long keys", long_keys + Hex("40")},
      {"long keys nested 127 deep", deep_long_keys + ArrayOf(Repeat(Hex("00 00"), 1000000))},
      {"long strings", ArrayOf(Repeat(WireString(std::string(65535, 's')), 300))},
      {"1 MiB buffers", ArrayOf(Repeat(Hex("20 00 10 00 00") + std::string(1 << 20, 'b'), 17))},
  };
  TempDir dir;
  LogCapture quiet(dir, "stream=2\n");  // the logger's own blocks stay out of the count
  for (const auto& s : kShapes) {
    ScopedFd input(open(dir.Write("input", s.bytes).c_str(), O_RDONLY));
    const int64_t before = g_live;
    g_peak = g_live;
    int rc;
    {
      Channel channel;
      ASSERT_EQ(0, channel.OpenIO(cat::File(input.get())));
      PStream stream;
      stream.SetSizeCap(kCap);
      PObject value;
      rc = stream.Recv(&channel, &value);
    }
    EXPECT_EQ(-5, rc) << s.shape;  // stopped at the cap
    EXPECT_LT(g_peak - before, 2 * kCap) << s.shape;
    EXPECT_EQ(before, g_live) << s.shape;  // everything given back
    printf("%-40s peak %5.2f MiB\n", s.shape, static_cast<double>(g_peak - before) / (1 << 20));
  }
}

}  // namespace
