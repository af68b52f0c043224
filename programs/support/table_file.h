// Tables in files: one route per line, columns split at '|', compressed with xz when the name ends so.
//
//     prefix|next hop|AS path|communities                       a table
//     A or W|peer|prefix|next hop|AS path|communities           a recording of updates
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "programs/support/attributes.h"
#include "zel/rtm.h"

namespace zel::programs {

// Calls `line` with every line of a file, without its line feed; false when it cannot be read to its end.
bool readLines(const std::string &path, const std::function<void(std::string_view)> &line);

// A row, ready to be sent; its attributes lie in the table's store.
struct Row {
    std::uint8_t prefix[16];
    std::uint8_t nextHop[16];
    std::uint32_t attributes;
    std::uint16_t attributesLength;
    std::uint8_t bits;
    std::uint8_t family;
    bool isWithdrawal;
};

struct TableFile {
    std::vector<Row> rows;
    std::vector<std::uint8_t> store;
    unsigned long unreadable = 0;       // lines that are no route
    unsigned long firstUnreadable = 0;  // the number of the first of them
    unsigned long communitiesCut = 0;   // communities that found no room in a TLV area
    unsigned long routesCut = 0;        // routes they belong to
    unsigned long pathsCut = 0;         // AS paths of which not every number found room
};

// Appends the rows of a table or recording; the form shows in each line. False when the file cannot be read.
bool readTable(const std::string &path, TableFile &table);

// Fills everything of a route that a row says; the TLV area stays in the table.
void routeOfRow(const TableFile &table, const Row &row, zelRtmRoute &route);

}  // namespace zel::programs
