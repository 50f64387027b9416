// A self-contained mutation driver for the entry points when libFuzzer is not
// used: it loads a seed corpus, mutates it with a fixed seed and feeds every
// case to LLVMFuzzerTestOneInput in this process, built with AddressSanitizer
// and UndefinedBehaviorSanitizer.
//
//   fuzz-<reader> --corpus DIR [--cases N] [--seed S] [--crashes DIR]
//
// A case fails on
//   - a crash or any sanitizer report (the sanitizer ends the process),
//   - more than 2 s of run time (an interval timer ends the process),
//   - a single allocation above max(64 MiB, 1024 x the case's size): no
//     reader may set memory aside that the input cannot justify (pixels of a
//     compressed format may expand beyond their bytes, but not by three
//     orders of magnitude before any of them has been decoded). Checked in
//     the sanitizer's allocation hook, which sees malloc and operator new.
// The failing input is written to the crashes directory before the process
// ends with a non-zero status; a campaign without failures prints one line
// of figures and exits 0.
#include <fcntl.h>
#include <sanitizer/common_interface_defs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// From the sanitizers' allocator interface (GCC installs no header for it).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                                        void (*)(const volatile void*));

namespace {

constexpr int kTimeLimitSeconds = 2;
constexpr size_t kMinAllocationBudget = size_t(64) << 20;
constexpr size_t kAllocationExpansion = 1024;
constexpr size_t kMaxCaseSize = size_t(1) << 20;

// State read by the hooks and the signal handler (plain globals: they run
// inside malloc or asynchronously and may only use async-signal-safe calls).
const uint8_t* gCase = nullptr;
size_t gCaseSize = 0;
size_t gAllocationLimit = 0;  // 0: not inside a case
size_t gLargestAllocation = 0;
char gCrashPath[4096];

void writeRaw(int fd, const char* text) { (void)!write(fd, text, std::strlen(text)); }

// Saves the current case and ends the process; safe inside a signal handler.
[[noreturn]] void failCase(const char* why)
{
    writeRaw(2, "fuzz: FAILED: ");
    writeRaw(2, why);
    writeRaw(2, "; input saved as ");
    writeRaw(2, gCrashPath);
    writeRaw(2, "\n");
    const int fd = open(gCrashPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        (void)!write(fd, gCase, gCaseSize);
        close(fd);
    }
    _exit(70);
}

void onMalloc(const volatile void*, size_t size)
{
    if (gAllocationLimit == 0)
        return;
    gLargestAllocation = std::max(gLargestAllocation, size);
    if (size > gAllocationLimit) {
        gAllocationLimit = 0;
        __sanitizer_print_stack_trace();
        failCase("an allocation beyond max(64 MiB, 1024 x input size)");
    }
}

void onFree(const volatile void*) {}

void onAlarm(int) { failCase("more than 2 s"); }

void onDeath()
{
    if (gCase)
        failCase("crash or sanitizer report");
}

std::vector<uint8_t> readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class Mutator {
public:
    Mutator(const std::vector<std::vector<uint8_t>>& seeds, uint64_t seed) : seeds_(seeds), rng_(seed) {}

    std::vector<uint8_t> next()
    {
        std::vector<uint8_t> data = seeds_[pick(seeds_.size())];
        const int rounds = 1 + int(pick(4));
        for (int i = 0; i < rounds; ++i)
            mutate(data);
        if (data.size() > kMaxCaseSize)
            data.resize(kMaxCaseSize);
        return data;
    }

private:
    size_t pick(size_t n) { return n ? size_t(rng_() % n) : 0; }

    void mutate(std::vector<uint8_t>& d)
    {
        static const uint8_t kBytes[] = {0, 1, 0x7F, 0x80, 0xFF, 0xFE, '0', '9', '-', '"', '[', '{', '\n', 0x20};
        static const uint32_t kWords[] = {0, 1, 0x7F, 0x80, 0xFF, 0x100, 0x7FFF, 0x8000, 0xFFFF, 0x10000,
                                          0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFE, 65500, 16384, 32768};
        static const char* const kNumbers[] = {"0", "-1", "99999999", "2147483647", "4294967296", "-2147483648",
                                               "1e38", "1e99", "nan", "65500", "0.000001"};
        const size_t at = pick(d.size() + 1);
        switch (pick(11)) {
        case 0:  // bit flips
            for (int n = 1 + int(pick(4)); n > 0 && !d.empty(); --n)
                d[pick(d.size())] ^= uint8_t(1u << pick(8));
            break;
        case 1:  // an interesting byte
            if (!d.empty())
                d[pick(d.size())] = kBytes[pick(sizeof kBytes)];
            break;
        case 2: {  // an interesting 16- or 32-bit value, either byte order
            const uint32_t v = kWords[pick(sizeof kWords / sizeof kWords[0])];
            const size_t width = pick(2) ? 4 : 2;
            const bool big = pick(2);
            if (d.size() < width)
                break;
            const size_t p = pick(d.size() - width + 1);
            for (size_t k = 0; k < width; ++k)
                d[p + k] = uint8_t(v >> (8 * (big ? width - 1 - k : k)));
            break;
        }
        case 3:  // truncation
            d.resize(pick(d.size() + 1));
            break;
        case 4: {  // splice: a chunk of any seed, inserted or written over
            const std::vector<uint8_t>& other = seeds_[pick(seeds_.size())];
            if (other.empty())
                break;
            const size_t from = pick(other.size());
            const size_t n = 1 + pick(std::min<size_t>(other.size() - from, 256));
            if (pick(2) || at + n > d.size())
                d.insert(d.begin() + long(at), other.begin() + long(from), other.begin() + long(from + n));
            else
                std::copy(other.begin() + long(from), other.begin() + long(from + n), d.begin() + long(at));
            break;
        }
        case 5: {  // a chunk of the input repeated
            if (d.empty())
                break;
            const size_t from = pick(d.size());
            const size_t n = 1 + pick(std::min<size_t>(d.size() - from, 64));
            const std::vector<uint8_t> chunk(d.begin() + long(from), d.begin() + long(from + n));
            for (int r = 1 + int(pick(16)); r > 0; --r)
                d.insert(d.begin() + long(std::min(at, d.size())), chunk.begin(), chunk.end());
            break;
        }
        case 6: {  // a number in text replaced by a huge or odd one, or by a long digit run
            size_t p = at;
            while (p < d.size() && !(d[p] >= '0' && d[p] <= '9'))
                ++p;
            size_t end = p;
            while (end < d.size() && d[end] >= '0' && d[end] <= '9')
                ++end;
            const std::string text =
                pick(4) ? kNumbers[pick(sizeof kNumbers / sizeof kNumbers[0])] : std::string(1 + pick(5000), '7');
            if (p > d.size())
                p = end = d.size();
            d.erase(d.begin() + long(p), d.begin() + long(end));
            d.insert(d.begin() + long(p), text.begin(), text.end());
            break;
        }
        case 7: {  // deep nesting
            const std::string open = pick(2) ? "[" : "{\"a\":";
            std::string text;
            for (size_t n = 1 + pick(pick(2) ? 100 : 20000); n > 0; --n)
                text += open;
            d.insert(d.begin() + long(at), text.begin(), text.end());
            break;
        }
        case 8:  // erase a range
            if (!d.empty())
                d.erase(d.begin() + long(std::min(at, d.size() - 1)),
                        d.begin() + long(std::min(d.size(), at + 1 + pick(64))));
            break;
        case 9:  // random bytes inserted
            for (size_t n = 1 + pick(32); n > 0; --n)
                d.insert(d.begin() + long(std::min(at, d.size())), uint8_t(rng_()));
            break;
        default:  // a very long line
            d.insert(d.begin() + long(at), 1 + pick(20000), uint8_t(pick(2) ? 'x' : '1'));
            break;
        }
    }

    const std::vector<std::vector<uint8_t>>& seeds_;
    std::mt19937_64 rng_;
};

}  // namespace

int main(int argc, char** argv)
{
    std::string corpus, crashes = ".";
    long cases = 2000;
    uint64_t seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        if (key == "--corpus")
            corpus = argv[i + 1];
        else if (key == "--cases")
            cases = std::atol(argv[i + 1]);
        else if (key == "--seed")
            seed = std::strtoull(argv[i + 1], nullptr, 10);
        else if (key == "--crashes")
            crashes = argv[i + 1];
    }
    std::vector<std::vector<uint8_t>> seeds;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(corpus, ec))
        if (entry.is_regular_file())
            seeds.push_back(readFile(entry.path()));
    if (seeds.empty()) {
        std::fprintf(stderr, "usage: %s --corpus DIR [--cases N] [--seed S] [--crashes DIR] (no seeds in '%s')\n",
                     argv[0], corpus.c_str());
        return 2;
    }
    const std::string name = std::filesystem::path(argv[0]).filename().string();
    std::snprintf(gCrashPath, sizeof gCrashPath, "%s/%s-seed%llu-case", crashes.c_str(), name.c_str(),
                  static_cast<unsigned long long>(seed));

    __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree);
    __sanitizer_set_death_callback(onDeath);
    std::signal(SIGALRM, onAlarm);

    Mutator mutator(seeds, seed);
    double slowest = 0;
    const auto begin = std::chrono::steady_clock::now();
    // The seeds themselves first, then the mutations.
    for (long i = 0; i < cases; ++i) {
        const std::vector<uint8_t> data = i < long(seeds.size()) ? seeds[size_t(i)] : mutator.next();
        gCase = data.data();
        gCaseSize = data.size();
        const itimerval limit{{0, 0}, {kTimeLimitSeconds, 0}};
        const auto t0 = std::chrono::steady_clock::now();
        setitimer(ITIMER_REAL, &limit, nullptr);
        gAllocationLimit = std::max(kMinAllocationBudget, kAllocationExpansion * data.size());
        LLVMFuzzerTestOneInput(data.data(), data.size());
        gAllocationLimit = 0;
        const itimerval off{{0, 0}, {0, 0}};
        setitimer(ITIMER_REAL, &off, nullptr);
        slowest = std::max(slowest, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    gCase = nullptr;
    const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::printf("%s: %ld cases (%zu seeds, seed %llu), 0 failures, slowest case %.3f s, largest allocation %.1f MiB, "
                "%.1f s in all\n",
                name.c_str(), cases, seeds.size(), static_cast<unsigned long long>(seed), slowest,
                double(gLargestAllocation) / (1 << 20), total);
    return 0;
}
