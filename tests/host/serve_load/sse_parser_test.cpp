// An event stream split into events however its bytes arrive.
#include "host/serve_load/sse_parser.h"

#include <gtest/gtest.h>

namespace quorvel::serve_load {
namespace {

using Events = std::vector<std::string>;

Events feed_in_pieces(std::string_view body, std::size_t piece) {
  SseParser parser;
  Events events;
  for (std::size_t at = 0; at < body.size(); at += piece) {
    for (std::string& event : parser.feed(body.substr(at, piece))) events.push_back(std::move(event));
  }
  return events;
}

TEST(SseParser, SplitsABodyIntoTheDataOfItsEvents) {
  const std::string body = "data: {\"a\":1}\n\ndata: {\"b\":2}\n\ndata: [DONE]\n\n";
  EXPECT_EQ(feed_in_pieces(body, body.size()), (Events{"{\"a\":1}", "{\"b\":2}", "[DONE]"}));
}

TEST(SseParser, PiecesOfAnySizeGiveTheSameEvents) {
  const std::string body = "data: {\"choices\":[{\"text\":\"hi\\n\"}]}\r\n\r\n: keep-alive\n\ndata: [DONE]\n\n";
  const Events whole = feed_in_pieces(body, body.size());
  ASSERT_EQ(whole, (Events{"{\"choices\":[{\"text\":\"hi\\n\"}]}", "[DONE]"}));
  for (std::size_t piece = 1; piece < body.size(); ++piece) EXPECT_EQ(feed_in_pieces(body, piece), whole) << piece;
}

TEST(SseParser, AnEventIsOnlyGivenOnceItsBlankLineArrives) {
  SseParser parser;
  EXPECT_TRUE(parser.feed("data: one\n").empty());
  EXPECT_TRUE(parser.feed("data: two\n").empty());
  EXPECT_EQ(parser.feed("\n"), Events{"one\ntwo"});
}

TEST(SseParser, CommentsOtherFieldsAndEmptyEventsAreSkipped) {
  SseParser parser;
  EXPECT_EQ(parser.feed(": comment\n\nevent: message\nid: 4\ndata:tight\n\n\n\nretry: 5\n\n"), Events{"tight"});
}

TEST(SseParser, OnlyOneSpaceAfterTheColonIsDropped) {
  SseParser parser;
  EXPECT_EQ(parser.feed("data:  two spaces\n\ndata:\n\n"), (Events{" two spaces", ""}));
}

}  // namespace
}  // namespace quorvel::serve_load
