#include "drivers/generic/generic_call.h"

#include <cstring>

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

TEST_F(GenericCallTest, ProbesInstallActionsAndReports)
{
    const uint32_t actions[] = {ACT_SEND_VCALL, ACT_ACCEPT_VCALL, ACT_REJECT_VCALL, ACT_GET_INC_VCALLS};
    const char *lines[] = {"\r\n+CLIP: \"5551234\",129\r\n", "\r\n+CRING: VOICE\r\n", "\r\nRING\r\n",
                           "\r\nNO CARRIER\r\n"};
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    EXPECT_EQ(generic_call_probe(&drv), 0);
    for (size_t i = 0; i < std::size(actions); i++)
        EXPECT_EQ(drv.funcs[actions[i]], fns[i].act) << fns[i].name;
    for (size_t i = 0; i < std::size(lines); i++)
        EXPECT_EQ(modem_driver_urc_method(&drv, lines[i], std::strlen(lines[i])), fns[4 + i].urc) << lines[i];
    EXPECT_EQ(drv.urc_count, std::size(lines));
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }
}

} // namespace
