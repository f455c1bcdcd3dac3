// Control interface of the reference platform's packet-side services for the
// process that hosts it (tests and efhost): packet buffers, the efmp service
// registry and hooks, lsm events, the bridge module, the capability service
// and the application database. Modules never include this header.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ef_bridge.h"
#include "mac_table.h"
#include "ef_mom.h"
#include "efmp.h"
#include "libtq_cap.h"
#include "lsm.h"

struct ProtobufCMessage;

namespace efrt {

// ---- packet buffers ----
// Buffers allocated and not yet freed, per reason and over all reasons.
long buff_live(int reason);
long buff_live_total();
// Buffers freed while flagged as encapsulated (EFMP_F_VXLAN_ENCAP), by anyone,
// since the last reset.
uint64_t buff_encapsulated_freed();
// Makes the next n buffer allocations fail.
void buff_fail_alloc(unsigned n);
// Returns the calling thread's cached buffer storage and the shared pool's to
// the C allocator.
void buff_pool_trim();

// ---- efmp services ----
struct ServiceInfo {
    uint32_t module;
    uint32_t service;
    void *handler;
};
// Every published service, ordered by (module, service).
std::vector<ServiceInfo> services();
// Services of one module only.
std::vector<ServiceInfo> services_of(uint32_t module);
// The next registration of (module, service) returns rc instead.
void serv_fail_register(uint32_t module, uint32_t service, int rc = -1);
// The next efmp_reg_serv_change_handler call returns rc instead.
void serv_fail_change_handler(int rc);
std::vector<efmp_serv_chg_fn> serv_change_handlers();
// Calls every change handler with an arbitrary change value and descriptor.
void serv_notify(uint32_t change, const efmp_service_t &serv);

// ---- per-interface hooks ----
struct EthParserInfo {
    uint32_t ifindex;
    uint32_t slot;
    void *handler;
    uint32_t arg;
};
std::vector<EthParserInfo> eth_parsers();
// The next ef_eth_reg_parser returns rc instead.
void eth_parser_fail_register(int rc);
std::vector<efmp_parser_t> efmp_parsers();
// The next efmp_reg_parser / efmp_dereg_parser returns rc instead.
void efmp_parser_fail_register(int rc);
void efmp_parser_fail_deregister(int rc);
std::vector<efmp_encap_t> efmp_encaps();
// The hook attached to one interface, or nullptr: what a pipeline runs per
// packet without copying the whole registry.
void *eth_parser_of(uint32_t ifindex, uint32_t slot);
efmp_parser_fn efmp_parser_of(const lsm_intfcb_t *intf);
efmp_encap_fn efmp_encap_of(const lsm_intfcb_t *intf);
// The next efmp_reg_encap returns rc instead.
void efmp_encap_fail_register(int rc);

// ---- lsm events ----
// Adds the interface and sends its creation event to the handlers of its stack.
void lsm_create(const lsm_intfcb_t &intf);
// Sends the destruction event to the handlers of the interface's stack, then
// removes the interface.
void lsm_destroy(uint32_t ifindex);
// Sends an arbitrary event to the handlers of one stack.
void lsm_event(uint32_t stack, uint32_t event, uint32_t ifindex, const std::string &name);
std::vector<lsm_msg_handler_fn> lsm_handlers(uint32_t stack);
// The next lsm_reg_msg_handler_ex on this stack returns rc instead.
void lsm_fail_register(uint32_t stack, int rc);
// Builds an interface control block.
lsm_intfcb_t make_intf(uint32_t ifindex, uint32_t type, uint8_t stack, const std::string &name);

// ---- bridge module ----
// Publishes (or withdraws) one of its services 4, 8, 20, 22, 25; false for
// any other number.
bool bridge_publish(uint32_t service);
bool bridge_withdraw(uint32_t service);
void bridge_publish_all();
void bridge_withdraw_all();
// The bridge's own handler of a service (published or not), or nullptr.
void *bridge_handler(uint32_t service);
// How long a learned MAC lives unseen, and how many the bridge learns: a
// large fabric's hosts fit, and a flood of invented source MACs stops here
// instead of at the end of memory. Snooped IP bindings (suppress.h) follow
// the same two.
constexpr uint64_t kDefaultMacAgeMs = 300000;
constexpr size_t kDefaultMacCapacity = 65536;
struct BridgeMac {
    uint64_t key;
    uint8_t mac[6];
    uint32_t ifindex;
    uint16_t vid;
    bool filter;
    MacKind kind;
    uint64_t seen_ms;  // platform clock when last learned
};
// Learned, configured and remote MAC entries, ordered by (key, MAC).
std::vector<BridgeMac> bridge_macs();
// Changes whenever an entry appears, goes, moves to another interface or
// changes kind; not when a MAC is merely seen again where it was.
uint64_t bridge_mac_generation();
// Entries of the MAC table, without listing them.
size_t bridge_mac_count();
// Learning stops at the capacity (65536 entries after reset); configured
// entries are always taken. Refused counts the MACs learning turned away.
void bridge_set_mac_capacity(size_t entries);
uint64_t bridge_mac_refused();
void bridge_add_mac(uint64_t key, const uint8_t *mac, uint32_t ifindex, uint16_t vid);
void bridge_add_filter(uint64_t key, const uint8_t *mac);
// A remote host's MAC toward a tunnel interface: does not age, and traffic
// from that tunnel leaves it remote; traffic from anywhere else means the
// host moved, and learning takes the entry over.
void bridge_add_remote(uint64_t key, const uint8_t *mac, uint32_t ifindex);
// Removes the remote entry of the MAC if it still points at ifindex; an
// entry that has moved, or is learned or configured, stays. True if removed.
bool bridge_remove_remote(uint64_t key, const uint8_t *mac, uint32_t ifindex);
// Learned entries older than the age time (300 s after reset) on the
// platform clock are removed by an ageing run; returns how many went.
void bridge_set_age_time(uint64_t ms);
size_t bridge_age_run();
void bridge_set_pvid(uint32_t ifindex, uint16_t pvid);
void bridge_add_vlan(uint32_t ifindex, uint16_t vid);
void bridge_remove_vlan(uint32_t ifindex, uint16_t vid);
// The member ports of a VLAN in ascending index order, without a lock; the
// list stays valid until the calling thread's next quiescent state (rcu.h).
const std::vector<uint32_t> &bridge_vlan_members(uint16_t vid);

// ---- capability service ----
// Sets a capability without telling anyone (before start).
void cap_define(const std::string &path, bool value);
// Changes a capability and sends a value-change message (type 4) to its
// subscribers; returns the number of subscribers called.
int cap_change(const std::string &path, bool value);
// Sends a message of any type and error code to a path's subscribers.
int cap_notify(const std::string &path, uint32_t type, int32_t error);
// Sends a null message to a path's subscribers; returns their results.
std::vector<int> cap_notify_null(const std::string &path);
// Results the subscribers returned for the last message sent.
std::vector<int> cap_last_results();
int cap_subscribers(const std::string &path);
// Reads of a path through libtq_cap_ce_get_g_cap_bool.
int cap_reads(const std::string &path);
// The next read / subscription of path, or the next read from a message,
// returns rc instead.
void cap_fail_get(const std::string &path, int rc);
void cap_fail_subscribe(const std::string &path, int rc);
void cap_fail_get_by_pmsg(int rc);

// ---- application database ----
// Whether efmp_get_mom_client hands out a client (it does after reset).
void mom_set_client_available(bool available);
void *mom_client();
struct MomRegistration {
    uint32_t module;
    uint32_t db;
    ef_mom_reg_t callbacks;
};
std::vector<MomRegistration> mom_registrations();
// The next ef_mom_register returns rc instead.
void mom_fail_register(int rc);
// Calls the connected / disconnected / reconnected callback of every
// registration; returns the number called.
int mom_connect();
int mom_disconnect(int reason);
int mom_reconnect();
// Stores an object (packed) under a key of a table named by the message's
// descriptor, and queues a set (new key) or update notification.
void mom_set(uint32_t db, const std::string &key, const ProtobufCMessage &msg);
// Removes an object and queues a removal notification (command 3).
void mom_remove(uint32_t db, const std::string &table, const std::string &key);
// Removes every object of a table and queues one command-27 notification.
void mom_remove_all(uint32_t db, const std::string &table);
// The MLAG system record with the given peer-link under key "mlag".
void mom_set_mlag_peerlink(uint32_t peerlink);
// Queues an arbitrary notification to the subscribers of a table.
void mom_notify(uint32_t db, const std::string &table, uint32_t cmd, uint32_t error, bool end,
                bool with_res);
// Delivers every queued notification (including those queued meanwhile), in
// order; returns the callbacks' results.
std::vector<int> mom_run();
size_t mom_pending();
int mom_subscriptions(uint32_t db, const std::string &table);
int mom_scans();
// The next tq_mom_subscribe / tq_mom_scan returns rc; the next accepted
// subscription is answered with a refusal (command 28) instead.
void mom_fail_subscribe(int rc);
void mom_fail_scan(int rc);
void mom_refuse_next_subscription();

}  // namespace efrt
