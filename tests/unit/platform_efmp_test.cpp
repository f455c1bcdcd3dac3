// The reference platform's pipeline services: packet buffers, the service
// registry with its change notifications, and the per-interface hooks.
#include <gtest/gtest.h>

#include "efrt.h"
#include "efrt_services.h"

namespace {

class PlatformEfmpTest : public ::testing::Test {
protected:
    void SetUp() override { efrt::reset(); }
    void TearDown() override { efrt::reset(); }
};

int handler_a(void *, void *) { return 1; }
int handler_b(void *, void *) { return 2; }

struct Change {
    uint32_t change;
    efmp_service_t serv;
};
std::vector<Change> g_changes;
void record_change(uint32_t change, efmp_service_t *serv) { g_changes.push_back({change, *serv}); }
std::vector<Change> g_changes2;
void record_change2(uint32_t change, efmp_service_t *serv) { g_changes2.push_back({change, *serv}); }

TEST_F(PlatformEfmpTest, NewBufferHoldsZeroedFrameAboveTheHeadroom)
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(3, 100);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->data_off, EFMP_BUFF_START);
    EXPECT_EQ(b->len, 100u);
    EXPECT_GE(b->size, EFMP_BUFF_START + 100u);
    for (uint32_t i = 0; i < b->len; ++i)
        ASSERT_EQ(b->head[b->data_off + i], 0);
    EXPECT_EQ(efrt::buff_live(3), 1);
    efmp_buff_free_sw_user(3, b);
    EXPECT_EQ(efrt::buff_live(3), 0);
}

TEST_F(PlatformEfmpTest, PushStopsAtTheHeadroomAndLeavesTheBufferUnchanged)
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(1, 64);
    const uint32_t room = EFMP_BUFF_START - EFMP_HEADROOM;
    EXPECT_EQ(efmp_buff_push(b, room + 1), nullptr);
    EXPECT_EQ(b->data_off, EFMP_BUFF_START);
    EXPECT_EQ(b->len, 64u);
    uint8_t *p = efmp_buff_push(b, room);
    EXPECT_EQ(p, b->head + EFMP_HEADROOM);
    EXPECT_EQ(b->data_off, EFMP_HEADROOM);
    EXPECT_EQ(b->len, 64u + room);
    EXPECT_EQ(efmp_buff_push(b, 1), nullptr);
    EXPECT_EQ(efmp_buff_pull(b, b->len + 1), nullptr);
    EXPECT_EQ(efmp_buff_pull(b, 14), b->head + EFMP_HEADROOM + 14);
    efmp_buff_free_sw_user(1, b);
}

TEST_F(PlatformEfmpTest, ChainFreeReleasesCountBuffersOrTheWholeChain)
{
    efmp_buff_t *a = efmp_buff_alloc_sw_user(7, 10);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(7, 10);
    efmp_buff_t *c = efmp_buff_alloc_sw_user(7, 10);
    a->next = b;
    b->next = c;
    efmp_buff_chain_free_sw_user(7, a, 0, 2);
    EXPECT_EQ(efrt::buff_live(7), 1);
    efmp_buff_chain_free_sw_user(7, c, 0, 0);
    EXPECT_EQ(efrt::buff_live(7), 0);
    EXPECT_EQ(efrt::buff_live_total(), 0);
}

TEST_F(PlatformEfmpTest, AllocationFailureCanBeInjected)
{
    efrt::buff_fail_alloc(1);
    EXPECT_EQ(efmp_buff_alloc_sw_user(0, 10), nullptr);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(0, 10);
    EXPECT_NE(b, nullptr);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(PlatformEfmpTest, ServicesArePublishedByModuleAndNumberAndEveryChangeHandlerIsTold)
{
    g_changes.clear();
    g_changes2.clear();
    ASSERT_EQ(efmp_reg_serv_change_handler(record_change), 0);
    ASSERT_EQ(efmp_reg_serv_change_handler(record_change2), 0);
    ASSERT_EQ(efmp_reg_serv_change_handler(record_change), 0);  // kept once
    EXPECT_EQ(efrt::serv_change_handlers().size(), 2u);

    efmp_service_t s{reinterpret_cast<void *>(handler_a), 56, 2};
    ASSERT_EQ(efmp_reg_service(&s), 0);
    EXPECT_EQ(efmp_get_service(56, 2), reinterpret_cast<void *>(handler_a));
    EXPECT_EQ(efmp_get_service(56, 3), nullptr);
    s.handler = reinterpret_cast<void *>(handler_b);
    ASSERT_EQ(efmp_reg_service(&s), 0);
    EXPECT_EQ(efmp_get_service(56, 2), reinterpret_cast<void *>(handler_b));
    efmp_service_t gone{nullptr, 56, 2};
    ASSERT_EQ(efmp_dereg_service(&gone), 0);
    EXPECT_EQ(efmp_dereg_service(&gone), -1);
    EXPECT_EQ(efmp_get_service(56, 2), nullptr);

    ASSERT_EQ(g_changes.size(), 3u);
    EXPECT_EQ(g_changes[0].change, EFMP_SERV_PUBLISHED);
    EXPECT_EQ(g_changes[0].serv.handler, reinterpret_cast<void *>(handler_a));
    EXPECT_EQ(g_changes[1].serv.handler, reinterpret_cast<void *>(handler_b));
    EXPECT_EQ(g_changes[2].change, EFMP_SERV_WITHDRAWN);
    EXPECT_EQ(g_changes[2].serv.handler, reinterpret_cast<void *>(handler_b));
    EXPECT_EQ(g_changes[2].serv.module, 56u);
    EXPECT_EQ(g_changes[2].serv.service, 2u);
    EXPECT_EQ(g_changes2.size(), 3u);
}

TEST_F(PlatformEfmpTest, RegistrationFailuresCanBeInjected)
{
    efrt::serv_fail_register(56, 4, -3);
    efmp_service_t s{reinterpret_cast<void *>(handler_a), 56, 4};
    EXPECT_EQ(efmp_reg_service(&s), -3);
    EXPECT_EQ(efmp_get_service(56, 4), nullptr);
    EXPECT_EQ(efmp_reg_service(&s), 0);
    efmp_service_t no_handler{nullptr, 56, 5};
    EXPECT_EQ(efmp_reg_service(&no_handler), -1);
    efrt::serv_fail_change_handler(-8);
    EXPECT_EQ(efmp_reg_serv_change_handler(record_change), -8);
    EXPECT_TRUE(efrt::serv_change_handlers().empty());
}

TEST_F(PlatformEfmpTest, BridgeServicesArePublishedAfterReset)
{
    std::vector<uint32_t> numbers;
    for (const auto &s : efrt::services_of(EFMP_MODULE_BRIDGE)) {
        numbers.push_back(s.service);
        EXPECT_EQ(s.handler, efrt::bridge_handler(s.service));
    }
    EXPECT_EQ(numbers, (std::vector<uint32_t>{4, 8, 20, 22, 25}));
}

int eth_parser(void *, void *) { return 0; }
int tunnel_parser(efmp_buff_t *, uint32_t *) { return 0; }
int encap(efmp_buff_t *, lsm_intfcb_t *) { return 0; }

TEST_F(PlatformEfmpTest, EthParsersAreKeptPerInterfaceAndSlot)
{
    void *fn = reinterpret_cast<void *>(eth_parser);
    EXPECT_EQ(ef_eth_reg_parser(10, fn, 0, 5), 0);
    EXPECT_EQ(ef_eth_reg_parser(10, fn, 1, 5), 0);  // replaces
    EXPECT_EQ(ef_eth_reg_parser(11, fn, 0, 5), 0);
    auto parsers = efrt::eth_parsers();
    ASSERT_EQ(parsers.size(), 2u);
    EXPECT_EQ(parsers[0].ifindex, 10u);
    EXPECT_EQ(parsers[0].arg, 1u);
    EXPECT_EQ(ef_eth_dereg_parser(10, 5), 0);
    EXPECT_EQ(ef_eth_dereg_parser(10, 5), -1);
    efrt::eth_parser_fail_register(-2);
    EXPECT_EQ(ef_eth_reg_parser(12, fn, 0, 5), -2);
    EXPECT_EQ(efrt::eth_parsers().size(), 1u);
}

TEST_F(PlatformEfmpTest, EfmpParsersAndEncapsAreKeptPerInterface)
{
    lsm_intfcb_t intf = efrt::make_intf(45001, 45, 0, "tunnel1");
    efmp_parser_t p{tunnel_parser, &intf, 1};
    EXPECT_EQ(efmp_reg_parser(&p), 0);
    EXPECT_EQ(efmp_reg_parser(&p), -1);
    ASSERT_EQ(efrt::efmp_parsers().size(), 1u);
    EXPECT_EQ(efmp_dereg_parser(&p), 0);
    EXPECT_EQ(efmp_dereg_parser(&p), -1);

    efmp_encap_t e{encap, &intf, 1};
    efrt::efmp_encap_fail_register(-7);
    EXPECT_EQ(efmp_reg_encap(&e), -7);
    EXPECT_EQ(efmp_reg_encap(&e), 0);
    ASSERT_EQ(efrt::efmp_encaps().size(), 1u);
    EXPECT_EQ(efrt::efmp_encaps()[0].handler, &encap);
    EXPECT_EQ(efmp_dereg_encap(&e), 0);
    EXPECT_TRUE(efrt::efmp_encaps().empty());
}

}  // namespace
