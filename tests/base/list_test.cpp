#include "libtirn/base/list.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "support/log_capture.h"

using namespace tirn::test;
namespace list = tirn::list;
using list::Link;

namespace {

__attribute__((format(printf, 1, 2))) std::string text_of(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

class List : public testing::Test {
 protected:
  List() {
    list::init(&head_);
    for (Link& link : links_) {
      list::push_back(&head_, &link);
    }
  }

  // What a walk in both directions meets; empty where the two differ.
  std::vector<const Link*> walked() {
    std::vector<const Link*> forward;
    for (const Link* at = head_.next; at != &head_; at = at->next) {
      forward.push_back(at);
    }
    auto back = forward.rbegin();
    for (const Link* at = head_.prev; at != &head_; at = at->prev) {
      if (*back++ != at) {
        return {};
      }
    }
    return forward;
  }

  void check(const Link* cur) {
    list::check_links(cur, "who_relinks", [this](const Link* link) {
      printed_.push_back(link);
      lines_before_print_ = log_.lines().size();
    });
  }

  LogCapture log_;
  Link head_;
  Link links_[3];
  std::vector<const Link*> printed_;
  size_t lines_before_print_ = 0;
};

TEST_F(List, LinksStandInOrderAndArePoisonedWhenTakenOff) {
  EXPECT_EQ(walked(), (std::vector<const Link*>{&links_[0], &links_[1], &links_[2]}));
  list::remove(&links_[1]);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(links_[1].next), 0x100100u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(links_[1].prev), 0x200200u);
  list::push_front(&head_, &links_[1]);
  EXPECT_EQ(walked(), (std::vector<const Link*>{&links_[1], &links_[0], &links_[2]}));
  for (Link& link : links_) {
    EXPECT_FALSE(list::is_empty(&head_));
    list::remove(&link);
  }
  EXPECT_TRUE(list::is_empty(&head_));
  EXPECT_EQ(head_.prev, &head_);
}

TEST_F(List, SoundLinksGiveNoLine) {
  for (const Link* const link : {&head_, &links_[0], &links_[1], &links_[2]}) {
    check(link);
  }
  list::check_step(&links_[1], &links_[0], "who_walks", [](const Link*) { FAIL(); });
  EXPECT_TRUE(log_.lines().empty()) << log_;
  EXPECT_TRUE(printed_.empty());
}

TEST_F(List, LinkOffItsListIsToldAtInfo) {
  list::remove(&links_[1]);
  check(&links_[1]);
  EXPECT_TRUE(
      log_.has(HURN_INFO, "who_relinks", text_of("List node prev:(%p), cur:(%p)", KESA_LIST_POISON_PREV, &links_[1])))
      << log_;
  EXPECT_EQ(log_.lines().size(), 1u) << log_;
  log_.clear();
  Link zeros{};
  check(&zeros);
  EXPECT_TRUE(log_.has(HURN_INFO, "who_relinks", text_of("List node prev:(%p), cur:(%p)", zeros.prev, &zeros)))
      << log_;
  EXPECT_EQ(log_.lines().size(), 1u) << log_;
  EXPECT_TRUE(printed_.empty());
}

TEST_F(List, BrokenNeighboursAreToldWithBothElements) {
  Link& cur = links_[1];
  links_[0].next = &links_[2];
  check(&cur);
  EXPECT_TRUE(log_.has(HURN_ERROR, "who_relinks",
                       text_of("Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)", &links_[0],
                               &links_[2], &head_, &cur, &links_[2], &links_[0])))
      << log_;
  EXPECT_EQ(printed_, (std::vector<const Link*>{&links_[0], &cur}));
  EXPECT_EQ(lines_before_print_, 1u);
  EXPECT_EQ(links_[0].next, &links_[2]) << "repaired";

  log_.clear();
  printed_.clear();
  links_[2].prev = &head_;
  check(&cur);
  EXPECT_EQ(log_.count(HURN_ERROR, "Abnormal list node*"), 2u) << log_;
  EXPECT_TRUE(log_.has(HURN_ERROR, "who_relinks",
                       text_of("Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)", &links_[2], &head_,
                               &head_, &cur, &links_[2], &links_[0])))
      << log_;
  EXPECT_EQ(printed_, (std::vector<const Link*>{&links_[0], &cur, &links_[2], &cur}));
}

TEST_F(List, StepFromAnotherLinkIsTold) {
  std::vector<const Link*> printed;
  list::check_step(&links_[2], &links_[0], "who_walks", [&](const Link* link) { printed.push_back(link); });
  EXPECT_TRUE(log_.has(HURN_ERROR, "who_walks",
                       text_of("Abnormal list node cur:%p(%p,%p), is not point to last:%p", &links_[2], &head_,
                               &links_[1], &links_[0])))
      << log_;
  EXPECT_EQ(printed, (std::vector<const Link*>{&links_[0], &links_[2]}));
}

}  // namespace
