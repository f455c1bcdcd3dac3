// The catalogue table in docs/vxlanctl.md is written by hand for readers; it
// must say exactly what vxlanctl offers, row for row, or the reader is
// handed layouts the tool no longer sends.
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tlv_catalogue.h"

namespace {

std::vector<std::string> documented_rows()
{
    std::ifstream in(std::string(VXLANCTL_DOC_PATH));
    std::vector<std::string> rows;
    std::string line;
    bool in_table = false;
    while (std::getline(in, line)) {
        if (line.rfind("| Code | Name | Value bytes |", 0) == 0) {
            in_table = true;
            std::getline(in, line);  // the separator row
            continue;
        }
        if (in_table && line.rfind("|", 0) != 0)
            break;
        if (in_table)
            rows.push_back(line);
    }
    return rows;
}

std::string catalogue_row(const vxlanctl::TlvDef &def)
{
    std::ostringstream row;
    row << "| " << def.code << " | " << def.name << " | " << def.length << " |";
    const char *sep = " ";
    for (const vxlanctl::FieldDef &f : def.fields) {
        row << sep << f.name << "@" << f.offset << " " << vxlanctl::field_kind_name(f.kind);
        sep = ", ";
    }
    row << " |";
    return row.str();
}

}  // namespace

TEST(VxlanctlDocsTest, CatalogueTableListsEveryOfferedTypeWithItsLayout)
{
    const std::vector<std::string> documented = documented_rows();
    ASSERT_FALSE(documented.empty()) << "no catalogue table found in " << VXLANCTL_DOC_PATH;
    std::vector<std::string> offered;
    for (const vxlanctl::TlvDef &def : vxlanctl::catalogue())
        offered.push_back(catalogue_row(def));
    EXPECT_EQ(documented, offered);
}
