// The back end whose client and source were made when it was (on the start-up's worker): the
// first createClient and createSource give those, later ones go to the back end.
#include "midi/opened_backend.h"
#include "midi/recording_backend.h"
#include "support/observed_backend.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace plinkora;
using plinkora::testing::ObservedBackend;
using Op = RecordingBackend::Op;

namespace {

long count(const RecordingBackend& backend, Op op)
{
    return std::count_if(backend.calls().begin(), backend.calls().end(),
                         [op](const RecordingBackend::Call& call) { return call.op == op; });
}

} // namespace

TEST(OpenedBackend, MakesItsClientAndSourceAtOnceAndGivesThemToTheFirstAsking)
{
    RecordingBackend recording;
    OpenedBackend opened(std::make_unique<ObservedBackend>(recording), "PLK");
    EXPECT_EQ(count(recording, Op::CreateClient), 1);
    EXPECT_EQ(count(recording, Op::CreateSource), 1);
    EXPECT_EQ(recording.clientName, "PLK");

    std::uint32_t client = 0;
    std::uint32_t source = 0;
    ASSERT_EQ(opened.createClient("PLK", client), kStatusOk);
    ASSERT_EQ(opened.createSource(client, "PLK", source), kStatusOk);
    EXPECT_NE(client, 0u);
    EXPECT_NE(source, 0u);
    EXPECT_EQ(count(recording, Op::CreateClient), 1);
    EXPECT_EQ(count(recording, Op::CreateSource), 1);

    const std::uint8_t noteOn[] = {0x90, 60, 100};
    EXPECT_EQ(opened.send(source, noteOn), kStatusOk);
    EXPECT_EQ(count(recording, Op::Send), 1);
    EXPECT_EQ(opened.apiName(), recording.apiName());

    // A service that came back: made anew by the back end.
    opened.disposeSource(source);
    opened.disposeClient(client);
    ASSERT_EQ(opened.createClient("PLK", client), kStatusOk);
    ASSERT_EQ(opened.createSource(client, "PLK", source), kStatusOk);
    EXPECT_EQ(count(recording, Op::CreateClient), 2);
    EXPECT_EQ(count(recording, Op::CreateSource), 2);
}

TEST(OpenedBackend, AFailureOfThenIsTheAnswerOfTheFirstAsking)
{
    RecordingBackend recording;
    recording.failWith(Op::CreateClient, kStatusServiceUnavailable);
    OpenedBackend opened(std::make_unique<ObservedBackend>(recording), "PLK");
    EXPECT_EQ(count(recording, Op::CreateSource), 0);
    std::uint32_t client = 0;
    EXPECT_EQ(opened.createClient("PLK", client), kStatusServiceUnavailable);
    EXPECT_EQ(client, 0u);
    EXPECT_EQ(count(recording, Op::CreateClient), 1);
}

TEST(OpenedBackend, AnotherNameIsTheBackEndsToAnswer)
{
    RecordingBackend recording;
    OpenedBackend opened(std::make_unique<ObservedBackend>(recording), "PLK");
    std::uint32_t client = 0;
    EXPECT_EQ(opened.createClient("Other", client), kStatusOk);
    EXPECT_EQ(count(recording, Op::CreateClient), 2);
    EXPECT_EQ(recording.clientName, "Other");
}
