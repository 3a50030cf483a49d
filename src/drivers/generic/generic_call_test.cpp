#include "drivers/generic/generic_call.h"

#include <gtest/gtest.h>

#include "drivers/generic/testdata_answers.h"

namespace
{

class GenericCallTest : public driver_case_test
{
  protected:
    static constexpr named_fn fns[] = {
        {"send_voice_call", send_voice_call, nullptr},
        {"accept_voice_call", accept_voice_call, nullptr},
        {"reject_voice_call", reject_voice_call, nullptr},
        {"get_incoming_voice_calls", get_incoming_voice_calls, nullptr},
        {"urc_clip", nullptr, urc_clip},
        {"urc_cring", nullptr, urc_cring},
        {"urc_ring", nullptr, urc_ring},
        {"urc_no_carrier", nullptr, urc_no_carrier},
    };
};

TEST_F(GenericCallTest, CommandsFromArguments)
{
    run_cases("call_commands.txt", fns);
}

// Reports are raised forced: a repeat (a RING every few seconds, the same
// SMS index again) still reaches subscribers.
TEST_F(GenericCallTest, AnswersAndReports)
{
    run_cases("ec25_call.txt", fns);
    run_cases("ts27007_call.txt", fns);
}

} // namespace
