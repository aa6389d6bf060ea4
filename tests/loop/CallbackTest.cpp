#include <vesk/loop/Callback.h>

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

namespace {

using vesk::loop::Callback;

/// Counts its copies that exist.
struct Counted {
    explicit Counted(int& count) : existing(&count) { ++*existing; }
    Counted(Counted const& other) noexcept : existing(other.existing) { ++*existing; }
    Counted(Counted&& other) noexcept : existing(other.existing) { ++*existing; }
    ~Counted() { --*existing; }
    Counted& operator=(Counted const&) = delete;

    int* existing;
};

TEST(Callback, passesItsArgumentsAndReturnsTheResult) {
    Callback<std::string(std::string, int)> callback = [](std::string const& text, int count) {
        return text + std::to_string(count);
    };
    EXPECT_EQ("text7", callback("text", 7));
}

TEST(Callback, ownsACallableThatCanOnlyBeMoved) {
    Callback<int()> callback = [owner = std::make_unique<int>(5)] { return *owner; };
    EXPECT_EQ(5, callback());
    Callback<int()> other = std::move(callback);
    EXPECT_FALSE(callback);
    EXPECT_EQ(5, other());
}

TEST(Callback, changesTheStateOfItsCallable) {
    Callback<int()> callback = [count = 0]() mutable { return ++count; };
    callback();
    EXPECT_EQ(2, callback());
}

TEST(Callback, destroysItsCallableOnceWhetherItFitsOrNot) {
    int existing = 0;
    {
        Callback<void()> small = [counted = Counted(existing)] {};
        Callback<void()> large = [counted = Counted(existing), more = std::array<char, 100>{}] {
            static_cast<void>(more);
        };
        EXPECT_EQ(2, existing);
        Callback<void()> moved = std::move(large);
        EXPECT_EQ(2, existing);
        small = std::move(moved);
        EXPECT_EQ(1, existing);
        small();
        auto& self = small;
        small = std::move(self);
        EXPECT_TRUE(small);
    }
    EXPECT_EQ(0, existing);
}

TEST(Callback, withoutACallableIsEmpty) {
    EXPECT_FALSE(Callback<void()>());
}

} // namespace
