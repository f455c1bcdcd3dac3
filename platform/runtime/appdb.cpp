// Application database (MOM): module registrations with their connection
// callbacks, tables of protobuf-c messages stored packed under a key, and
// subscriptions and scans. Notifications are queued and delivered by
// efrt::mom_run() on the caller's thread, as the client thread would deliver
// them later: a callback that subscribes or scans is never re-entered.
#include <protobuf-c/protobuf-c.h>

#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "ef_mom.h"
#include "efrt_services.h"
#include "p_intf.pb-c.h"

namespace {

using TableKey = std::pair<uint32_t, std::string>;  // (db, message full name)
using Bytes = std::vector<uint8_t>;

struct Subscription {
    TableKey table;
    const ProtobufCMessageDescriptor *descriptor;
    tq_mom_cb cb;
    void *ctx;
};

struct Pending {
    tq_mom_cb cb;
    void *ctx;
    const ProtobufCMessageDescriptor *descriptor;
    uint32_t cmd;
    uint32_t error;
    bool end;
    bool with_res;
    bool has_object;
    Bytes object;
};

struct Client {
    int unused;
};

struct AppDb {
    std::mutex lock;
    Client client{};
    bool client_available = true;
    std::vector<efrt::MomRegistration> registrations;
    std::map<TableKey, std::map<std::string, Bytes>> tables;
    std::vector<Subscription> subscriptions;
    std::deque<Pending> pending;
    int scans = 0;
    int fail_register = 0;
    int fail_subscribe = 0;
    int fail_scan = 0;
    bool refuse_next = false;
};

AppDb &appdb()
{
    static AppDb a;
    return a;
}

int take(int &armed)
{
    int rc = armed;
    armed = 0;
    return rc;
}

Bytes pack(const ProtobufCMessage &msg)
{
    Bytes bytes(protobuf_c_message_get_packed_size(&msg));
    protobuf_c_message_pack(&msg, bytes.data());
    return bytes;
}

// Queues one notification to every subscriber of a table; caller holds the lock.
void queue_to_subscribers(AppDb &a, const TableKey &table, uint32_t cmd, uint32_t error,
                          bool end, bool with_res, const Bytes *object)
{
    for (const Subscription &s : a.subscriptions) {
        if (s.table != table)
            continue;
        a.pending.push_back(Pending{s.cb, s.ctx, s.descriptor, cmd, error, end, with_res,
                                    object != nullptr, object ? *object : Bytes{}});
    }
}

const ProtobufCMessageDescriptor *request_descriptor(const tq_mom_req_t *req)
{
    return req == nullptr ? nullptr
                          : static_cast<const ProtobufCMessageDescriptor *>(req->descriptor);
}

int deliver(Pending &p)
{
    ProtobufCMessage *object = nullptr;
    if (p.has_object)
        object = protobuf_c_message_unpack(p.descriptor, nullptr, p.object.size(),
                                           p.object.data());
    void *res[1] = {object};
    tq_mom_notify_t msg{};
    msg.cmd = p.cmd;
    msg.res = p.with_res ? res : nullptr;
    msg.res_count = object != nullptr ? 1 : 0;
    msg.end = p.end ? 1 : 0;
    msg.error = p.error;
    int rc = p.cb(p.ctx, &msg);
    if (object != nullptr)
        protobuf_c_message_free_unpacked(object, nullptr);
    return rc;
}

}  // namespace

extern "C" void *efmp_get_mom_client(void)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    return a.client_available ? &a.client : nullptr;
}

extern "C" int ef_mom_register(uint32_t module, ef_mom_reg_t *callbacks, uint32_t db)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    if (int rc = take(a.fail_register); rc != 0)
        return rc;
    if (callbacks == nullptr)
        return -1;
    for (const efrt::MomRegistration &r : a.registrations)
        if (r.module == module && r.db == db)
            return -1;
    a.registrations.push_back(efrt::MomRegistration{module, db, *callbacks});
    return 0;
}

extern "C" int ef_mom_unregister(uint32_t module, uint32_t db)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    for (auto it = a.registrations.begin(); it != a.registrations.end(); ++it) {
        if (it->module == module && it->db == db) {
            a.registrations.erase(it);
            return 0;
        }
    }
    return -1;
}

// The subscription is answered later by an accepted (29) or refused (28)
// notification.
extern "C" int tq_mom_subscribe(void *client, uint32_t db, tq_mom_req_t *req, uint32_t,
                                tq_mom_cb cb, void *ctx)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    if (int rc = take(a.fail_subscribe); rc != 0)
        return rc;
    const ProtobufCMessageDescriptor *desc = request_descriptor(req);
    if (client != &a.client || desc == nullptr || cb == nullptr)
        return -1;
    const uint32_t answer = a.refuse_next ? TQ_MOM_CMD_SUB_REFUSED : TQ_MOM_CMD_SUB_ACCEPTED;
    if (!a.refuse_next)
        a.subscriptions.push_back(Subscription{{db, desc->name}, desc, cb, ctx});
    a.refuse_next = false;
    a.pending.push_back(Pending{cb, ctx, desc, answer, 0, false, false, false, {}});
    return 0;
}

// A scan sends every object of the table as a set notification, the last one
// marked as the end; an empty table gives one end notification without objects.
extern "C" int tq_mom_scan(void *client, uint32_t db, tq_mom_req_t *req, uint32_t,
                           tq_mom_cb cb, void *ctx)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    if (int rc = take(a.fail_scan); rc != 0)
        return rc;
    const ProtobufCMessageDescriptor *desc = request_descriptor(req);
    if (client != &a.client || desc == nullptr || cb == nullptr)
        return -1;
    a.scans++;
    const auto &objects = a.tables[{db, desc->name}];
    if (objects.empty()) {
        a.pending.push_back(Pending{cb, ctx, desc, TQ_MOM_CMD_SET, 0, true, false, false, {}});
        return 0;
    }
    std::size_t left = objects.size();
    for (const auto &[key, bytes] : objects)
        a.pending.push_back(
            Pending{cb, ctx, desc, TQ_MOM_CMD_SET, 0, --left == 0, true, true, bytes});
    return 0;
}

namespace efrt {

void mom_set_client_available(bool available)
{
    std::lock_guard<std::mutex> g(appdb().lock);
    appdb().client_available = available;
}

void *mom_client()
{
    std::lock_guard<std::mutex> g(appdb().lock);
    return &appdb().client;
}

std::vector<MomRegistration> mom_registrations()
{
    std::lock_guard<std::mutex> g(appdb().lock);
    return appdb().registrations;
}

void mom_fail_register(int rc)
{
    std::lock_guard<std::mutex> g(appdb().lock);
    appdb().fail_register = rc;
}

int mom_connect()
{
    int called = 0;
    for (const MomRegistration &r : mom_registrations())
        if (r.callbacks.connected != nullptr && ++called)
            r.callbacks.connected();
    return called;
}

int mom_disconnect(int reason)
{
    int called = 0;
    for (const MomRegistration &r : mom_registrations())
        if (r.callbacks.disconnected != nullptr && ++called)
            r.callbacks.disconnected(reason);
    return called;
}

int mom_reconnect()
{
    int called = 0;
    for (const MomRegistration &r : mom_registrations())
        if (r.callbacks.reconnected != nullptr && ++called)
            r.callbacks.reconnected();
    return called;
}

void mom_set(uint32_t db, const std::string &key, const ProtobufCMessage &msg)
{
    Bytes bytes = pack(msg);
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    const TableKey table{db, msg.descriptor->name};
    auto &objects = a.tables[table];
    const uint32_t cmd = objects.count(key) != 0 ? TQ_MOM_CMD_UPDATE : TQ_MOM_CMD_SET;
    objects[key] = bytes;
    queue_to_subscribers(a, table, cmd, 0, false, true, &bytes);
}

void mom_remove(uint32_t db, const std::string &table, const std::string &key)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    auto &objects = a.tables[{db, table}];
    auto it = objects.find(key);
    if (it == objects.end())
        return;
    Bytes bytes = std::move(it->second);
    objects.erase(it);
    queue_to_subscribers(a, {db, table}, TQ_MOM_CMD_REMOVE, 0, false, true, &bytes);
}

void mom_remove_all(uint32_t db, const std::string &table)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    a.tables[{db, table}].clear();
    queue_to_subscribers(a, {db, table}, TQ_MOM_CMD_REMOVE_ALL, 0, false, false, nullptr);
}

void mom_set_mlag_peerlink(uint32_t peerlink)
{
    PIntf__DataMlagSystem system;
    p_intf__data_mlag_system__init(&system);
    system.domain_id = 1;
    system.match_state = P_INTF__MLAG_MATCH_STATE_E__MATCH_SUCCESS;
    system.role = P_INTF__MLAG_ROLE_E__ROLE_MASTER;
    system.peerlink = peerlink;
    mom_set(4, "mlag", system.base);
}

void mom_notify(uint32_t db, const std::string &table, uint32_t cmd, uint32_t error, bool end,
                bool with_res)
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    queue_to_subscribers(a, {db, table}, cmd, error, end, with_res, nullptr);
}

std::vector<int> mom_run()
{
    std::vector<int> results;
    for (;;) {
        Pending p;
        {
            std::lock_guard<std::mutex> g(appdb().lock);
            if (appdb().pending.empty())
                return results;
            p = std::move(appdb().pending.front());
            appdb().pending.pop_front();
        }
        results.push_back(deliver(p));
    }
}

size_t mom_pending()
{
    std::lock_guard<std::mutex> g(appdb().lock);
    return appdb().pending.size();
}

int mom_subscriptions(uint32_t db, const std::string &table)
{
    std::lock_guard<std::mutex> g(appdb().lock);
    int n = 0;
    for (const Subscription &s : appdb().subscriptions)
        n += s.table == TableKey{db, table} ? 1 : 0;
    return n;
}

int mom_scans()
{
    std::lock_guard<std::mutex> g(appdb().lock);
    return appdb().scans;
}

void mom_fail_subscribe(int rc)
{
    std::lock_guard<std::mutex> g(appdb().lock);
    appdb().fail_subscribe = rc;
}

void mom_fail_scan(int rc)
{
    std::lock_guard<std::mutex> g(appdb().lock);
    appdb().fail_scan = rc;
}

void mom_refuse_next_subscription()
{
    std::lock_guard<std::mutex> g(appdb().lock);
    appdb().refuse_next = true;
}

void appdb_reset()
{
    AppDb &a = appdb();
    std::lock_guard<std::mutex> g(a.lock);
    a.client_available = true;
    a.registrations.clear();
    a.tables.clear();
    a.subscriptions.clear();
    a.pending.clear();
    a.scans = 0;
    a.fail_register = a.fail_subscribe = a.fail_scan = 0;
    a.refuse_next = false;
}

}  // namespace efrt
