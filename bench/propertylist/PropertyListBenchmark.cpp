// Binary property lists: the codec against libplist on one document shaped
// like many transactions, {UUID: {"t": int, "e": string, "p": {...}}}, of
// about a million values.
//
// Heap use is measured by replacing malloc and its relatives in this program
// (so the C++ allocations of the codec and the C allocations of libplist are
// both seen), keeping the live byte count and its high-water mark. Each figure
// is the high-water mark during one operation minus what was live before it,
// so it includes the operation's result (bytes written, or the tree read).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <plist/plist.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "loomwork/platform/PropertyList.h"

#if defined(__SANITIZE_ADDRESS__)
#define LOOMWORK_BENCH_COUNT_HEAP 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LOOMWORK_BENCH_COUNT_HEAP 0
#endif
#endif
#ifndef LOOMWORK_BENCH_COUNT_HEAP
#define LOOMWORK_BENCH_COUNT_HEAP 1
#endif

namespace {

std::atomic<int64_t> gLive{0};
[[maybe_unused]] std::atomic<int64_t> gPeak{0};
// Counting costs a malloc_usable_size() per call, so it is on only while heap
// figures are taken, never while timing. Every figure is a difference taken
// within one counting window, so blocks that cross a window's edge do not
// distort it.
[[maybe_unused]] std::atomic<bool> gCounting{false};

}  // namespace

#if LOOMWORK_BENCH_COUNT_HEAP
namespace {

void account(void* p) {
  if (p == nullptr || !gCounting.load(std::memory_order_relaxed)) return;
  int64_t live = gLive.fetch_add(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed) +
                 static_cast<int64_t>(malloc_usable_size(p));
  int64_t peak = gPeak.load(std::memory_order_relaxed);
  while (live > peak && !gPeak.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
}

void unaccount(void* p) {
  if (p != nullptr && gCounting.load(std::memory_order_relaxed))
    gLive.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed);
}

}  // namespace

extern "C" {
void* __libc_malloc(size_t);
void __libc_free(void*);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t n) {
  void* p = __libc_malloc(n);
  account(p);
  return p;
}
void free(void* p) {
  unaccount(p);
  __libc_free(p);
}
void* calloc(size_t n, size_t size) {
  void* p = __libc_calloc(n, size);
  account(p);
  return p;
}
void* realloc(void* old, size_t n) {
  unaccount(old);
  void* p = __libc_realloc(old, n);
  if (p == nullptr && n != 0) {
    account(old);  // the old block stays
    return nullptr;
  }
  account(p);
  return p;
}
void* memalign(size_t alignment, size_t n) {
  void* p = __libc_memalign(alignment, n);
  account(p);
  return p;
}
void* aligned_alloc(size_t alignment, size_t n) { return memalign(alignment, n); }
int posix_memalign(void** out, size_t alignment, size_t n) {
  void* p = memalign(alignment, n);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}
}
#endif

namespace {

using loomwork::Array;
using loomwork::Data;
using loomwork::Dictionary;
using loomwork::Value;

constexpr int kTransactions = 62500;  // 16 values each, keys not counted
constexpr double kSecondsFrom1970To2001 = 978307200.0;

struct Documents {
  Value value;
  plist_t libplist = nullptr;
  size_t values = 0;
  size_t keys = 0;
  int64_t valueHeap = 0;     // bytes of heap the Value tree holds
  int64_t libplistHeap = 0;  // bytes of heap the libplist tree holds
};

// The same seeded generator drives both trees, so they hold the same content.
Documents makeDocuments(bool withValue, bool withLibplist) {
  Documents docs;
  std::mt19937_64 random(42);
  static const char* const kEntities[] = {"Task", "Project", "Note", "Person", "Tag"};
  static const char* const kWords[] = {"alpha", "beta", "gamma", "delta", "urgent", "home", "work", "later"};
  auto uuid = [&] {
    char buffer[40];
    uint64_t a = random(), b = random();
    std::snprintf(buffer, sizeof buffer, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(a >> 32),
                  static_cast<unsigned>(a >> 16) & 0xFFFF, static_cast<unsigned>(a) & 0xFFFF,
                  static_cast<unsigned>(b >> 48), static_cast<unsigned long long>(b & 0xFFFFFFFFFFFFULL));
    return std::string(buffer);
  };
  Dictionary top;
  if (withValue) top.reserve(kTransactions);
  if (withLibplist) docs.libplist = plist_new_dict();
  for (int i = 0; i < kTransactions; ++i) {
    std::string id = uuid();
    auto type = static_cast<int64_t>(1 + random() % 4);
    std::string entity = kEntities[random() % 5];
    std::string name = std::string(kWords[random() % 8]) + " item " + std::to_string(random() % 100000);
    auto count = static_cast<int64_t>(random() % 1000000);
    double score = static_cast<double>(random() % 1000000) / 1000.0;
    auto modified2001 = static_cast<int32_t>(random() % 700000000);
    std::string tags[3] = {kWords[random() % 8], kWords[random() % 8], kWords[random() % 8]};
    auto x = static_cast<int64_t>(random() % 2000), y = static_cast<int64_t>(random() % 2000);
    std::string note = "Note " + std::to_string(i) + ": " + kWords[random() % 8];

    if (withValue) {
      Dictionary p;
      p.insert_or_assign(Value("name"), Value(name));
      p.insert_or_assign(Value("count"), Value(count));
      p.insert_or_assign(Value("score"), Value(score));
      p.insert_or_assign(Value("modified"), Value::date(modified2001 + kSecondsFrom1970To2001));
      p.insert_or_assign(Value("tags"), Value(Array{Value(tags[0]), Value(tags[1]), Value(tags[2])}));
      p.insert_or_assign(Value("position"), Value(Array{Value(x), Value(y)}));
      p.insert_or_assign(Value("note"), Value(note));
      Dictionary op;
      op.insert_or_assign(Value("t"), Value(type));
      op.insert_or_assign(Value("e"), Value(entity));
      op.insert_or_assign(Value("p"), Value(std::move(p)));
      top.insert_or_assign(Value(id), Value(std::move(op)));
    }
    if (!withLibplist) continue;

    plist_t pp = plist_new_dict();
    plist_dict_set_item(pp, "name", plist_new_string(name.c_str()));
    plist_dict_set_item(pp, "count", plist_new_uint(static_cast<uint64_t>(count)));
    plist_dict_set_item(pp, "score", plist_new_real(score));
    plist_dict_set_item(pp, "modified", plist_new_date(modified2001, 0));
    plist_t tagArray = plist_new_array();
    for (const auto& tag : tags) plist_array_append_item(tagArray, plist_new_string(tag.c_str()));
    plist_dict_set_item(pp, "tags", tagArray);
    plist_t position = plist_new_array();
    plist_array_append_item(position, plist_new_uint(static_cast<uint64_t>(x)));
    plist_array_append_item(position, plist_new_uint(static_cast<uint64_t>(y)));
    plist_dict_set_item(pp, "position", position);
    plist_dict_set_item(pp, "note", plist_new_string(note.c_str()));
    plist_t pop = plist_new_dict();
    plist_dict_set_item(pop, "t", plist_new_uint(static_cast<uint64_t>(type)));
    plist_dict_set_item(pop, "e", plist_new_string(entity.c_str()));
    plist_dict_set_item(pop, "p", pp);
    plist_dict_set_item(docs.libplist, id.c_str(), pop);
  }
  if (withValue) docs.value = Value(std::move(top));
  docs.values = 1 + static_cast<size_t>(kTransactions) * 16;
  docs.keys = static_cast<size_t>(kTransactions) * 11;
  return docs;
}

Documents& documents() {
  static Documents docs = [] {
    int64_t before = gLive.load();
    Documents value = makeDocuments(true, false);
    value.valueHeap = gLive.load() - before;
    before = gLive.load();
    Documents libplist = makeDocuments(false, true);
    value.libplistHeap = gLive.load() - before;
    value.libplist = libplist.libplist;
    return value;
  }();
  return docs;
}

const Data& ourBytes() {
  static Data bytes = *loomwork::dataFromPropertyList(documents().value, loomwork::PropertyListFormat::Binary);
  return bytes;
}

const std::string& theirBytes() {
  static std::string bytes = [] {
    char* out = nullptr;
    uint32_t length = 0;
    plist_to_bin(documents().libplist, &out, &length);
    std::string copy(out, length);
    plist_to_bin_free(out);
    return copy;
  }();
  return bytes;
}

void BM_Loomwork_WriteBinary(benchmark::State& state) {
  const Value& doc = documents().value;
  for (auto _ : state) {
    auto data = loomwork::dataFromPropertyList(doc, loomwork::PropertyListFormat::Binary);
    benchmark::DoNotOptimize(data->data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * ourBytes().size()));
}

void BM_libplist_WriteBinary(benchmark::State& state) {
  plist_t doc = documents().libplist;
  for (auto _ : state) {
    char* out = nullptr;
    uint32_t length = 0;
    plist_to_bin(doc, &out, &length);
    benchmark::DoNotOptimize(out);
    plist_to_bin_free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * theirBytes().size()));
}

// Reading is timed in two ways: building the tree alone (its teardown is
// left out of the timing), and building and freeing it.
void BM_Loomwork_ReadBinary(benchmark::State& state) {
  const Data& bytes = ourBytes();
  for (auto _ : state) {
    auto value = loomwork::propertyListFromData(bytes);
    benchmark::DoNotOptimize(value->count());
    state.PauseTiming();
    value.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_libplist_ReadBinary(benchmark::State& state) {
  const std::string& bytes = theirBytes();
  for (auto _ : state) {
    plist_t doc = nullptr;
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &doc);
    benchmark::DoNotOptimize(doc);
    state.PauseTiming();
    plist_free(doc);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

// libplist reading the codec's bytes: the same input for both readers.
void BM_libplist_ReadLoomworkBinary(benchmark::State& state) {
  const Data& bytes = ourBytes();
  for (auto _ : state) {
    plist_t doc = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &doc);
    benchmark::DoNotOptimize(doc);
    state.PauseTiming();
    plist_free(doc);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_Loomwork_ReadBinaryAndFree(benchmark::State& state) {
  const Data& bytes = ourBytes();
  for (auto _ : state) {
    auto value = loomwork::propertyListFromData(bytes);
    benchmark::DoNotOptimize(value->count());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_libplist_ReadBinaryAndFree(benchmark::State& state) {
  const std::string& bytes = theirBytes();
  for (auto _ : state) {
    plist_t doc = nullptr;
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &doc);
    benchmark::DoNotOptimize(doc);
    plist_free(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

// With --benchmark_repetitions, "min" is reported beside mean and median: on a
// shared machine the fastest repetition is the steadiest figure.
double fastest(const std::vector<double>& times) { return *std::min_element(times.begin(), times.end()); }

#define LOOMWORK_PLIST_BENCHMARK(name) \
  BENCHMARK(name)->Unit(benchmark::kMillisecond)->ComputeStatistics("min", fastest)
LOOMWORK_PLIST_BENCHMARK(BM_Loomwork_WriteBinary);
LOOMWORK_PLIST_BENCHMARK(BM_libplist_WriteBinary);
LOOMWORK_PLIST_BENCHMARK(BM_Loomwork_ReadBinary);
LOOMWORK_PLIST_BENCHMARK(BM_libplist_ReadBinary);
LOOMWORK_PLIST_BENCHMARK(BM_libplist_ReadLoomworkBinary);
LOOMWORK_PLIST_BENCHMARK(BM_Loomwork_ReadBinaryAndFree);
LOOMWORK_PLIST_BENCHMARK(BM_libplist_ReadBinaryAndFree);

#if LOOMWORK_BENCH_COUNT_HEAP
// The high-water mark of the heap during `operation`, above what was live before.
template <class F>
int64_t peakDuring(F&& operation) {
  int64_t before = gLive.load();
  gPeak.store(before);
  operation();
  return gPeak.load() - before;
}

#endif

void reportMemory() {
#if LOOMWORK_BENCH_COUNT_HEAP
  gCounting = true;
  Documents& docs = documents();
  const int64_t valueSize = docs.valueHeap;
  int64_t ourWrite =
      peakDuring([&] { (void)loomwork::dataFromPropertyList(docs.value, loomwork::PropertyListFormat::Binary); });
  int64_t ourRead = peakDuring([] { (void)loomwork::propertyListFromData(ourBytes()); });
  int64_t theirWrite = peakDuring([&] {
    char* out = nullptr;
    uint32_t length = 0;
    plist_to_bin(docs.libplist, &out, &length);
    plist_to_bin_free(out);
  });
  int64_t theirRead = peakDuring([] {
    plist_t doc = nullptr;
    plist_from_bin(theirBytes().data(), static_cast<uint32_t>(theirBytes().size()), &doc);
    plist_free(doc);
  });
  auto mb = [](int64_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); };
  std::printf("document: %zu values and %zu dictionary keys\n", docs.values, docs.keys);
  std::printf("binary size: loomwork %.1f MiB, libplist %.1f MiB\n", mb(static_cast<int64_t>(ourBytes().size())),
              mb(static_cast<int64_t>(theirBytes().size())));
  std::printf("heap held by the document: Value tree %.1f MiB, libplist tree %.1f MiB\n", mb(valueSize),
              mb(docs.libplistHeap));
  std::printf("peak heap above the input, loomwork: write %.1f MiB (%.2fx the Value tree), read %.1f MiB (%.2fx)\n",
              mb(ourWrite), static_cast<double>(ourWrite) / static_cast<double>(valueSize), mb(ourRead),
              static_cast<double>(ourRead) / static_cast<double>(valueSize));
  std::printf("peak heap above the input, libplist: write %.1f MiB, read %.1f MiB\n\n", mb(theirWrite), mb(theirRead));
  gCounting = false;
#else
  std::printf("heap figures are not measured in a sanitizer build\n\n");
#endif
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // --skip_heap_report leaves out the heap figures (they run libplist's slow
  // writer once more).
  bool heapReport = true;
  if (argc > 1 && std::string(argv[argc - 1]) == "--skip_heap_report") {
    heapReport = false;
    --argc;
  }
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (heapReport) reportMemory();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  plist_free(documents().libplist);
  return 0;
}
