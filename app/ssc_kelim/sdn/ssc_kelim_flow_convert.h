// Conversion between a cached node and the members of records.
//
// Thread: main SDN thread.
// Ownership: the address sub-messages of a record are allocated with ssc_sdn_malloc and released by the ssc_sdn_free_* calls,
// according to the record's own bitmap. MAC and IPv6 bytes are borrowed from the node: the record has to be written before the
// node is deleted. Results: 0; QX_NO_MEMORY out of memory, with everything undone.
#pragma once

#include <cstdint>

#include "s_policy_kelim.pb-c.h"
#include "ssc_kelim/sdn/flow_node.h"

// ---- node to the record of a service-chain flow

// Attaches `field` and `action`, made from `node`, to the record.
std::int32_t ssc_sdn_parse_flow_ace_field_act_convert(SPolicyKelim__ParseFlow *parse_flow, const flow_info_node *node);

// Fill the members of one bit of flow_field_e or flow_action_e; *error becomes 1 when memory is short.
void ssc_sdn_parse_flow_ace_field_convert(SPolicyKelim__FlowField *field, std::uint32_t bit, const flow_info_node *node,
                                          int *error);
void ssc_sdn_parse_flow_ace_action_convert(SPolicyKelim__FlowAction *action, std::uint32_t bit, const flow_info_node *node,
                                           int *error);

// ---- node to the record of an installed flow

// Attaches flow_field, flow_action and the access-control entries (flow->n_ace of them; the first one carries the flow) to the
// record and sets the length of flow_data. Borrows from `node`.
std::int32_t ssc_sdn_ace_field_act_convert(SPolicyKelim__Flow *flow, const flow_info_node *node);

// Fill the members of one bit of flow_ace_rule_e or flow_ace_action_e; *error becomes 1 when memory is short.
void ssc_sdn_ace_field_convert(SPolicyKelim__FlowAceField *field, std::uint32_t bit, const flow_info_node *node, int *error);
void ssc_sdn_ace_action_convert(SPolicyKelim__FlowAceAction *action, std::uint32_t bit, const flow_info_node *node, int *error);

// ---- whole messages

// Set the message's bitmap from the node's and fill the members of every bit of it, ascending. The bit at which memory ran out,
// or -1.
int ssc_sdn_fill_flow_field(SPolicyKelim__FlowField *field, const flow_info_node *node);
int ssc_sdn_fill_flow_action(SPolicyKelim__FlowAction *action, const flow_info_node *node);
int ssc_sdn_fill_ace_field(SPolicyKelim__FlowAceField *field, const flow_info_node *node);  // in_port_ifx as well
int ssc_sdn_fill_ace_action(SPolicyKelim__FlowAceAction *action, const flow_info_node *node);

// ---- stored access-control entry to node

// Copy the members of one bit into `node`. False, with nothing copied, when the entry lacks an address that the bit stands for
// (or carries one of the wrong length).
bool ssc_kelim_get_flow_to_ace_field(flow_info_node *node, const SPolicyKelim__FlowAce *ace, std::uint32_t bit);
bool ssc_kelim_get_flow_to_ace_action(flow_info_node *node, const SPolicyKelim__FlowAce *ace, std::uint32_t bit);

// Do the same for every bit of the entry's bitmap, which is copied to `node`. The bit that failed, or -1. An entry without match
// or actions has none of their bits.
int ssc_sdn_read_back_ace_field(flow_info_node *node, const SPolicyKelim__FlowAce *ace);  // in_port_ifx as well
int ssc_sdn_read_back_ace_action(flow_info_node *node, const SPolicyKelim__FlowAce *ace);

// ---- releasing the memory of a conversion

void ssc_sdn_free_field_ip_mac(SPolicyKelim__FlowField *field);
void ssc_sdn_free_action_mac(SPolicyKelim__FlowAction *action);
void ssc_sdn_free_ace_field_ip_mac(SPolicyKelim__FlowAceField *field);
void ssc_sdn_free_ace_action_mac(SPolicyKelim__FlowAceAction *action);

// Releases everything that a successful ssc_sdn_ace_field_act_convert, or ssc_sdn_parse_flow_ace_field_act_convert, attached to
// the record.
void ssc_sdn_free_flow_members(SPolicyKelim__Flow *flow);
void ssc_sdn_free_parse_flow_members(SPolicyKelim__ParseFlow *parse_flow);

// True on a big-endian host, where the 16 bits of a VLAN id lie in the other half of its 32-bit word.
bool ssc_sdn_check_memcpy_reverse();
