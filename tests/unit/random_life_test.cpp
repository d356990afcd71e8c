// The fuzz target of datagrams, with random inputs: whatever peers and callbacks do, every exchange completes
// exactly once, and nothing is left over.
#include <random>

#include "../fuzz/datagrams.cpp"

// The key of the hash tables, which the order of their walks depends on.
extern "C" __attribute__((visibility("default"))) ssize_t getrandom(void *buffer, size_t size, unsigned) {
    return std::memset(buffer, 7, size), static_cast<ssize_t>(size);
}

class RandomLife : public testing::TestWithParam<unsigned> {};

TEST_P(RandomLife, EndsInOrder) {
    std::mt19937 random(GetParam());
    for (int life = 0; life < 20; ++life) {
        std::vector<uint8_t> input(4000);
        for (uint8_t &byte : input) byte = static_cast<uint8_t>(random());
        EXPECT_EQ(LLVMFuzzerTestOneInput(input.data(), input.size()), 0);
    }
}
INSTANTIATE_TEST_SUITE_P(Seeds, RandomLife, testing::Range(1u, 21u));
