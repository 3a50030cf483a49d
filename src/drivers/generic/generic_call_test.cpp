#include "drivers/generic/generic_call.h"

#include <gtest/gtest.h>

#include "drivers/generic/testdata_answers.h"

namespace
{

class GenericCallTest : public driver_case_test
{
  protected:
    static constexpr named_fn fns[] = {
        ACTION(send_voice_call), ACTION(accept_voice_call), ACTION(reject_voice_call), ACTION(get_incoming_voice_calls),
        REPORT(urc_clip),        REPORT(urc_cring),         REPORT(urc_ring),          REPORT(urc_no_carrier)};
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
