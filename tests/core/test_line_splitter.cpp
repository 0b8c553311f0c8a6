#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LineSplitter.h"

using ostv::LineSplitter;

namespace {
std::vector<std::string> feedInPieces(LineSplitter& s, std::string_view stream, size_t piece) {
    std::vector<std::string> out;
    for (size_t at = 0; at < stream.size(); at += piece)
        s.feed(stream.substr(at, piece), [&](std::string_view line) { out.emplace_back(line); });
    return out;
}
}  // namespace

// Whatever the pieces, only 0x0A ends a line, empty lines are skipped and a partial line waits.
TEST(LineSplitter, LinesAreTheSameInAnyPiecesAndEmptyOnesAreSkipped) {
    const std::string stream = "{\"a\":1}\n\n\nbeta\ngamma\r\n\n{\"d\"";
    for (size_t piece : {1u, 3u, 4096u}) {
        LineSplitter s;
        EXPECT_EQ(feedInPieces(s, stream, piece), (std::vector<std::string>{"{\"a\":1}", "beta", "gamma\r"})) << piece;
        EXPECT_EQ(s.buffered(), 4u);  // {"d" waits for its line feed
        EXPECT_EQ(feedInPieces(s, ":4}\n", piece), (std::vector<std::string>{"{\"d\":4}"}));
        EXPECT_EQ(s.buffered(), 0u);
    }
    LineSplitter s;  // a line of several megabytes arrives whole
    const std::string big(5 * 1024 * 1024, 'x');
    EXPECT_TRUE(feedInPieces(s, big, 65536).empty());
    EXPECT_EQ(feedInPieces(s, "\n", 1), std::vector<std::string>{big});
}

TEST(LineSplitter, ALineOverTheLimitIsDroppedWholeInAnyPiecesAndTheNextComesThrough) {
    for (size_t piece : {1u, 3u, 7u, 64u}) {
        LineSplitter s(8);
        const std::string stream = "12345678\n123456789\nabc\n" + std::string(40, 'x') + "\nend\n";
        EXPECT_EQ(feedInPieces(s, stream, piece), (std::vector<std::string>{"12345678", "abc", "end"})) << piece;
        EXPECT_EQ(s.droppedLines(), 2u);
        EXPECT_EQ(s.buffered(), 0u);
    }
    // A peer that never ends its line: the buffer stays at the limit, whatever it sends.
    LineSplitter s(1024);
    const std::string junk(4096, 'j');
    for (int i = 0; i < 1000; ++i) s.feed(junk, [](std::string_view) { FAIL() << "no line ends"; });
    EXPECT_LE(s.buffered(), 1024u);
    EXPECT_EQ(feedInPieces(s, "\nok\n", 4), std::vector<std::string>{"ok"});
}
