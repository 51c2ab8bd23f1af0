/*
 * Where datagrams went: the counters of the library and of the software adapter in words, each drop with what to
 * do about it.
 */
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

#include "ledger/ledger.h"

namespace tools {

struct Drop {
    std::string reason;  /* the counter's name */
    std::string where;   /* "library", "interface", "board", "endpoint 0" */
    uint64_t count = 0;  /* datagrams, frames or requests */
    std::string meaning; /* in words */
    std::string remedy;
};

/* The drops among counters of the library, by name; those that are not 0. */
std::vector<Drop> library_drops(const std::vector<std::pair<std::string, uint64_t>> &counters);

/* Those of a board of the software adapter. */
std::vector<Drop> adapter_drops(const softnic::LedgerPage &page);

/* "ring_full (endpoint 0): 12: <meaning>; <remedy>" */
std::string drop_text(const Drop &drop);

/* Prints "drops:" and a line for each; nothing when there is none. */
void put_drops(const std::vector<Drop> &drops);

nlohmann::ordered_json drops_json(const std::vector<Drop> &drops);

/* The board's account with its process and its drops; endpoints that were never used are left out. */
nlohmann::ordered_json ledger_object(const softnic::LiveLedger &ledger);

/* "ruk-recv (process 7), board 0 on oxel0" */
std::string board_text(const softnic::LiveLedger &ledger);

/* The board's account as lines of text, without the drops. */
std::vector<std::string> ledger_lines(const softnic::LiveLedger &ledger);

/* What to say when there is none to show, of an interface or, where its name is empty, at all. */
std::string no_ledgers_text(const std::string &interface);

/* Of the boards in this process, up to date. */
std::vector<softnic::LiveLedger> own_ledgers();

/* True for an endpoint that somebody has or that ever had traffic. */
bool in_use(const softnic::LedgerEndpoint &endpoint);

} // namespace tools
