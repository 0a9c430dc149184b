// Interprets a user's words: finds the nearest known word and reads matches as ovs-ofctl spells them.
#pragma once

#include <string>
#include <vector>

namespace kelimctl {

// The word that was probably meant; empty when none is near.
std::string nearest(const std::string &typed, const std::vector<std::string> &known);

// The terms of a match such as "tcp,nw_dst=10.0.0.0/24,tp_dst=80", each with the fields that it may stand for, as the views show
// them: {{"ip_proto=6"}, {"ipv4_dst=10.0.0.0/24"}, {"tcp_dst=80", "udp_dst=80", "sctp_dst=80"}}.
std::vector<std::vector<std::string>> match_terms(const std::string &match);

}  // namespace kelimctl
