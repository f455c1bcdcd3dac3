// Private declarations of the pipeline wiring: the table of the module's
// pipeline services and the handlers the packet plane hands to the platform,
// with the registration steps that use them. The steps take the table or the
// handler as an argument, so that they work the same for any table (the
// tests drive them with tables of their own).
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "efmp.h"
#include "lsm.h"

namespace vxlan_ef {

// ---- service_rows.cpp ----

// One of the module's pipeline services.
struct ServiceRow {
    uint32_t number;           // service number under EFMP_MODULE_VXLAN
    efmp_handler_fn handler;   // the service's entry point
    uint32_t mask;             // bit of the registered-service mask
    const char *failure;       // the service's own failure text
    const char *init_failure;  // start-up's text for the same failure
};

// The eight services in start-up order, each with its real handler.
extern const std::array<ServiceRow, 8> kServices;

// Publishes one service and sets its mask bit; a refusal writes the row's
// failure text to the log file and returns -1.
int register_service(const ServiceRow &row);

// Withdraws one service (the platform's answer does not matter) and clears
// its mask bit.
int deregister_service(const ServiceRow &row);

// Start-up's service step: every row in table order (a row without a handler,
// which only a test's table has, is passed over); the first failure stops it
// with -1 and leaves the earlier services registered.
int register_services(std::span<const ServiceRow> table);
void deregister_services(std::span<const ServiceRow> table);

// ---- parser_attach.cpp ----

// Handlers the packet plane attaches to interfaces: the Ethernet-level parser
// of interfaces that may carry VXLAN over IP, and the parser of overlay
// tunnels (a null handler would attach nothing).
struct PacketHooks {
    ef_eth_parser_fn eth_parser;
    efmp_parser_fn tunnel_parser;
};

extern const PacketHooks kPacketHooks;

// Attach (or detach) the Ethernet-level parser to a parser interface, the
// tunnel parser to an overlay tunnel: -1 for no interface or a refusal
// (logged), 0 otherwise; an interface of another kind is left alone.
int attach_eth_parser(lsm_intfcb_t *intf, ef_eth_parser_fn parser);
int detach_eth_parser(lsm_intfcb_t *intf);
int attach_tunnel_parser(lsm_intfcb_t *intf, efmp_parser_fn parser);
int detach_tunnel_parser(lsm_intfcb_t *intf, efmp_parser_fn parser);

// ---- serv_change.cpp ----

// Fetches the bridge services the packet plane uses (the two software-
// forwarding ones only with CAP_FWDMODE_SOFT).
void fetch_bridge_services();

}  // namespace vxlan_ef
