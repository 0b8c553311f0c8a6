#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LineSplitter.h"

using ostv::LineSplitter;

namespace {
std::vector<std::string> feedAll(LineSplitter& s, std::initializer_list<std::string_view> chunks) {
    std::vector<std::string> out;
    for (auto c : chunks) s.feed(c, [&](std::string_view line) { out.emplace_back(line); });
    return out;
}
}  // namespace

TEST(LineSplitter, WholeSplitAndMultipleLines) {
    LineSplitter s;
    EXPECT_EQ(feedAll(s, {"{\"a\":1}\n"}), (std::vector<std::string>{"{\"a\":1}"}));
    EXPECT_EQ(feedAll(s, {"{\"b\"", ":2}", "\n{\"c\":3}\n{\"d\""}),
              (std::vector<std::string>{"{\"b\":2}", "{\"c\":3}"}));
    EXPECT_EQ(s.buffered(), 4u);  // {"d" waits for its line feed
    EXPECT_EQ(feedAll(s, {":4}\n"}), (std::vector<std::string>{"{\"d\":4}"}));
    EXPECT_EQ(s.buffered(), 0u);
}

TEST(LineSplitter, EmptyLinesAreSkippedAndAChunkWithoutLineFeedYieldsNothing) {
    LineSplitter s;
    EXPECT_TRUE(feedAll(s, {"\n\n\n"}).empty());
    EXPECT_TRUE(feedAll(s, {"partial", " more"}).empty());
    EXPECT_EQ(feedAll(s, {"\n\nx\n"}), (std::vector<std::string>{"partial more", "x"}));
}

TEST(LineSplitter, ByteAtATimeMatchesOneChunk) {
    const std::string stream = "alpha\nbeta\n\ngamma\r\ndelta";
    LineSplitter whole, bytes;
    std::vector<std::string> a, b;
    whole.feed(stream, [&](std::string_view l) { a.emplace_back(l); });
    for (char c : stream) bytes.feed(std::string_view(&c, 1), [&](std::string_view l) { b.emplace_back(l); });
    EXPECT_EQ(a, b);
    EXPECT_EQ(a, (std::vector<std::string>{"alpha", "beta", "gamma\r"}));  // only 0x0A splits
    EXPECT_EQ(whole.buffered(), bytes.buffered());
}

TEST(LineSplitter, ALineOfSeveralMegabytesArrivesWhole) {
    LineSplitter s;
    std::string big(5 * 1024 * 1024, 'x');
    std::vector<size_t> sizes;
    for (size_t off = 0; off < big.size(); off += 65536)
        s.feed(std::string_view(big).substr(off, 65536), [&](std::string_view l) { sizes.push_back(l.size()); });
    EXPECT_TRUE(sizes.empty());
    s.feed("\n", [&](std::string_view l) { sizes.push_back(l.size()); });
    EXPECT_EQ(sizes, (std::vector<size_t>{big.size()}));
}

TEST(LineSplitter, ALineOverTheLimitIsDroppedWholeInAnyPiecesAndTheNextComesThrough) {
    for (size_t piece : {1u, 3u, 7u, 64u}) {
        LineSplitter s(8);
        std::vector<std::string> got;
        const std::string stream = "12345678\n123456789\nabc\n" + std::string(40, 'x') + "\nend\n";
        for (size_t at = 0; at < stream.size(); at += piece)
            s.feed(std::string_view(stream).substr(at, piece), [&](std::string_view l) { got.emplace_back(l); });
        EXPECT_EQ(got, (std::vector<std::string>{"12345678", "abc", "end"})) << "pieces of " << piece;
        EXPECT_EQ(s.droppedLines(), 2u);
        EXPECT_EQ(s.buffered(), 0u);
    }
    // A peer that never ends its line: the buffer stays at the limit, whatever it sends.
    LineSplitter s(1024);
    const std::string junk(4096, 'j');
    for (int i = 0; i < 1000; ++i) s.feed(junk, [](std::string_view) { FAIL() << "no line ends"; });
    EXPECT_LE(s.buffered(), 1024u);
    std::vector<std::string> got;
    s.feed("\nok\n", [&](std::string_view l) { got.emplace_back(l); });
    EXPECT_EQ(got, std::vector<std::string>{"ok"});
}
