// Every code against testdata/error_names.csv, a list of its own: a slip in the table that the program uses
// does not pass here unless somebody makes it there too.
#include <gtest/gtest.h>

#include <charconv>
#include <map>
#include <set>

#include "base/paths.h"
#include "errors/error_tables.h"
#include "errors/error_text.h"
#include "kit/files.h"

namespace rq {
namespace {

struct Row {
    std::uint32_t family = 0;
    std::uint32_t code = 0;
    std::string name;

    bool operator==(const Row&) const = default;
};

// Empty, with a failed test, when a line has not the form "0,0x80000001,name".
std::vector<Row> ListedRows() {
    std::vector<std::string> lines = kit::ReadLines(PathFromUtf8(RQ_ERROR_NAMES_CSV));
    if (lines.empty() || lines[0] != "family,code,name") {
        ADD_FAILURE() << "no list";
        return {};
    }
    std::vector<Row> rows;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        Row row;
        if (line.size() < 14 || line[1] != ',' || line.substr(2, 2) != "0x" || line[12] != ',') {
            ADD_FAILURE() << line;
            return {};
        }
        row.family = static_cast<std::uint32_t>(line[0] - '0');
        std::from_chars(line.data() + 4, line.data() + 12, row.code, 16);
        row.name = line.substr(13);
        rows.push_back(row);
    }
    return rows;
}

TEST(ErrorList, HasEveryCodeOnce) {
    std::map<std::uint32_t, int> counts;
    std::set<std::pair<std::uint32_t, std::uint32_t>> codes;
    for (const Row& row : ListedRows()) {
        ++counts[row.family];
        EXPECT_TRUE(codes.insert({row.family, row.code}).second) << row.name;
    }
    EXPECT_EQ(counts, (std::map<std::uint32_t, int>{{0, 132}, {1, 75}, {3, 76}, {4, 4}}));
}

TEST(ErrorList, IsTheTableRowByRow) {
    const std::vector<Row> listed = ListedRows();
    ASSERT_EQ(AllErrorNames().size(), listed.size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
        const ErrorName& entry = AllErrorNames()[i];
        EXPECT_EQ((Row{entry.family, entry.code, entry.name}), listed[i])
            << "row " << i << ": " << entry.name << " is not " << listed[i].name;
    }
}

TEST(ErrorList, EveryCodeHasItsNameInEachFamily) {
    for (const Row& row : ListedRows()) {
        EXPECT_EQ(GetErrorName(row.code, row.family), row.name);
        if (row.family != 0) continue;
        for (const std::uint32_t family : {2u, 5u, 7u, 0xFFFFFFFFu}) {
            EXPECT_EQ(GetErrorName(row.code, family), row.name) << family;
        }
    }
    // The functions of single tables too.
    for (const Row& row : ListedRows()) {
        const std::string name = row.family == 0   ? CodecErrorName(row.code)
                                 : row.family == 1 ? NetworkErrorName(row.code)
                                 : row.family == 3 ? InspectionErrorName(row.code)
                                                   : TaskErrorName(row.code);
        EXPECT_EQ(name, row.name);
    }
}

// What is not listed has its family's fallback: the neighbours of every listed code, and each code in the
// families that do not list it.
TEST(ErrorList, EveryCodeBesideAListedOneHasTheFallback) {
    const std::map<std::uint32_t, std::string> fallbacks{{0, "KWR_DMC_ERROR_"}, {1, "KWR_TRANSFER_ERROR_"},
                                                         {2, "KWR_DMC_ERROR_"}, {3, "KWR_VACHECK_SDK_ERROR_"},
                                                         {4, "KWR_OVL_ERROR_"}, {5, "KWR_DMC_ERROR_"}};
    std::set<std::pair<std::uint32_t, std::uint32_t>> listed;
    for (const Row& row : ListedRows()) listed.insert({row.family, row.code});
    int count = 0;
    for (const Row& row : ListedRows()) {
        for (const std::uint32_t code : {row.code - 1, row.code, row.code + 1}) {
            for (const auto& [family, fallback] : fallbacks) {
                const std::uint32_t table = family == 2 || family == 5 ? 0 : family;
                if (listed.count({table, code}) != 0) continue;
                char digits[9];
                const auto end = std::to_chars(digits, digits + sizeof digits, code, 16).ptr;
                std::string hex(digits, end);
                for (char& c : hex) c = static_cast<char>(c >= 'a' ? c - 'a' + 'A' : c);
                EXPECT_EQ(GetErrorName(code, family), fallback + hex) << family;
                ++count;
            }
        }
    }
    EXPECT_GT(count, 3000);
}

}  // namespace
}  // namespace rq
