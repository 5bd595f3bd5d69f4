#include "outbox.h"

#include <gmock/gmock.h>

#include "request_text.h"

namespace ip_spoofing_mgr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using wire::Request;

/// Everything that is to be sent now, one text per frame.
std::vector<std::string> Frames(Outbox* outbox) {
  std::vector<std::string> frames;
  while (const auto payload = outbox->NextFrame()) frames.push_back(BatchText(*wire::ParseBatchPart(*payload)));
  return frames;
}

void AddAll(Outbox* outbox, const std::vector<Request>& requests, bool full = false) {
  for (const Request& request : requests) outbox->Add(request);
  outbox->Close(full);
}

TEST(Outbox, WithoutRequestsThereIsNothingToSend) {
  Outbox outbox;
  outbox.Close(false);
  outbox.Restart();
  EXPECT_THAT(Frames(&outbox), IsEmpty());
}

TEST(Outbox, AFullBatchIsSentEvenWhenItIsEmpty) {
  Outbox outbox;
  outbox.Close(true);
  EXPECT_THAT(Frames(&outbox), ElementsAre("1 full []"));
}

TEST(Outbox, OneCallbackIsOneBatchOnceItIsSent) {
  Outbox outbox;
  AddAll(&outbox, {Enable(1), Put(1, 5, "10.0.0.1", 7)});
  EXPECT_THAT(Frames(&outbox), ElementsAre("1 [enable 1, put 1/5/10.0.0.1 mac 7]"));
  AddAll(&outbox, {Disable(1)});
  EXPECT_THAT(Frames(&outbox), ElementsAre("2 [disable 1]"));
}

TEST(Outbox, WhatIsNotSentYetIsJoined) {
  Outbox outbox;
  AddAll(&outbox, {Enable(1)});
  AddAll(&outbox, {Disable(1), Mode(1, 3)});
  EXPECT_THAT(Frames(&outbox), ElementsAre("1 [enable 1, disable 1, mode 1 3]"));
}

TEST(Outbox, WhatIsNotAcknowledgedIsSentAgainAsOneBatchOfTheLatestPerObject) {
  Outbox outbox;
  AddAll(&outbox, {Enable(1), Put(1, 5, "10.0.0.1", 7), Put(1, 5, "10.0.0.2"), Mode(1, 1)});
  Frames(&outbox);
  AddAll(&outbox, {Disable(1), Put(1, 5, "10.0.0.1", 8), Remove(1, 5, "10.0.0.2"), Put(1, 6, "10.0.0.2")});
  EXPECT_EQ(outbox.Objects(), 5U);
  outbox.Restart();
  EXPECT_THAT(Frames(&outbox), ElementsAre("3 [mode 1 1, disable 1, put 1/5/10.0.0.1 mac 8, remove 1/5/10.0.0.2, "
                                           "put 1/6/10.0.0.2]"));
}

TEST(Outbox, WhatIsAcknowledgedIsNotSentAgain) {
  Outbox outbox;
  AddAll(&outbox, {Enable(1)});
  Frames(&outbox);
  AddAll(&outbox, {Enable(2)});
  Frames(&outbox);
  AddAll(&outbox, {Enable(3)});
  outbox.Acknowledge(1);
  EXPECT_EQ(outbox.Objects(), 2U);
  outbox.Restart();
  EXPECT_THAT(Frames(&outbox), ElementsAre("4 [enable 2, enable 3]"));
  outbox.Acknowledge(4);
  EXPECT_EQ(outbox.Objects(), 0U);
  outbox.Restart();
  EXPECT_THAT(Frames(&outbox), IsEmpty());
}

TEST(Outbox, AFullBatchMakesWhatWasUnsentBeforeItNeedless) {
  Outbox outbox;
  AddAll(&outbox, {Put(1, 0, "10.0.0.1"), Enable(9)});
  AddAll(&outbox, {Enable(1)}, true);
  AddAll(&outbox, {Remove(1, 0, "10.0.0.2")});
  EXPECT_THAT(Frames(&outbox), ElementsAre("1 full [enable 1, remove 1/0/10.0.0.2]"));
}

TEST(Outbox, AFullBatchThatWasNotAcknowledgedIsFullAgainWithoutWhatWentBeforeIt) {
  Outbox outbox;
  AddAll(&outbox, {Put(1, 0, "10.0.0.1")});
  Frames(&outbox);
  AddAll(&outbox, {Enable(1)}, true);
  Frames(&outbox);
  AddAll(&outbox, {Enable(2)});
  outbox.Restart();
  EXPECT_THAT(Frames(&outbox), ElementsAre("4 full [enable 1, enable 2]"));
}

TEST(Outbox, ALargeBatchGoesInPartsAndIsAcknowledgedOnlyWhenItIsSentWhole) {
  Outbox outbox;
  for (uint16_t i = 0; i < wire::kRequestsPerFrame + 1; ++i) outbox.Add(Enable(i));
  outbox.Close(false);
  const auto first = wire::ParseBatchPart(*outbox.NextFrame());
  EXPECT_EQ(first->requests.size(), wire::kRequestsPerFrame);
  EXPECT_FALSE(first->last);
  outbox.Acknowledge(1);
  EXPECT_EQ(outbox.Objects(), wire::kRequestsPerFrame + 1);
  const auto second = wire::ParseBatchPart(*outbox.NextFrame());
  EXPECT_EQ(second->sequence, 1U);
  EXPECT_EQ(second->requests.size(), 1U);
  EXPECT_TRUE(second->last);
  EXPECT_EQ(outbox.NextFrame(), std::nullopt);
}

TEST(Outbox, TheSameObjectsOverAndOverTakeTheRoomOfTheObjects) {
  Outbox outbox;
  for (int round = 0; round < 1000; ++round) {
    AddAll(&outbox, {Enable(1), Disable(2), Put(3, 0, "10.0.0.1", static_cast<uint8_t>(round)), Mode(1, 2)});
  }
  outbox.Restart();
  const auto frames = Frames(&outbox);
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(frames.front(), "1 [enable 1, disable 2, put 3/0/10.0.0.1 mac 231, mode 1 2]");
}

TEST(KeepLatest, TellsObjectsApart) {
  std::vector<Request> requests{Enable(1),
                                Mode(1, 1),
                                Put(1, 0, "10.0.0.1"),
                                Put(1, 1, "10.0.0.1"),
                                Put(2, 0, "10.0.0.1"),
                                Put(1, 0, "10.0.0.2"),
                                Put(1, 0, "a00:1::")};
  const std::vector<Request> before = requests;
  KeepLatest(&requests);
  EXPECT_EQ(requests, before);
  requests.insert(requests.end(), before.begin(), before.end());
  KeepLatest(&requests);
  EXPECT_EQ(requests, before);
}

}  // namespace
}  // namespace ip_spoofing_mgr
