#include "drivers/generic/generic_pdp.h"

#include <gtest/gtest.h>

#include "comm/request.h"
#include "drivers/generic/testdata_answers.h"

namespace
{

class GenericPdpTest : public driver_case_test
{
  protected:
    static constexpr named_fn fns[] = {ACTION(set_pdp_ctx),          ACTION(get_pdp_ctx),      ACTION(get_pdp_addr),
                                       ACTION(get_pdp_addr_list),    ACTION(set_ps_att_state), ACTION(get_ps_att_state),
                                       ACTION(get_act_pdp_ctx_list), ACTION(get_dns_addr)};
};

TEST_F(GenericPdpTest, CommandsFromArguments)
{
    run_cases("pdp_commands.txt", fns);
}

TEST_F(GenericPdpTest, AnswersIntoReplies)
{
    run_cases("ec25_pdp.txt", fns);
    run_cases("ts27007_pdp.txt", fns);
}

// The activation query leaves its line end to the request, which adds it
// (and the NUL byte it writes after an added one).
TEST_F(GenericPdpTest, ActivationQueryReachesTheModemTerminated)
{
    ASSERT_EQ(build(get_act_pdp_ctx_list), ACT_STATUS_OK);
    request_ptr sent(create_request(ACT_GET_ACT_PDP_CTX_LIST, nullptr, nullptr, req.command, req.length, 10, nullptr));
    ASSERT_TRUE(sent);
    EXPECT_EQ(std::string(sent->command, sent->length), std::string("AT+CGACT?\r\0", 11));
}

} // namespace
