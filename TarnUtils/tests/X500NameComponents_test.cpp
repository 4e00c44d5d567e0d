// Only a real common-name attribute is found in the text form, whatever another attribute's
// value imitates.
#include "TarnUtils/X500Name.h"

#include <doctest.h>

TEST_CASE("an unquoted value ends at '+' as well as ','")
{
    struct Row {
        const char* subject;
        const char* commonName;
    };
    const Row rows[] = {
        {"2.5.4.10=Org + 2.5.4.11=\"x, 2.5.4.3=PlainSigner, y\", 2.5.4.3=ForgedSigner", "ForgedSigner"},
        {"2.5.4.10=Org+2.5.4.3=Real, 2.5.4.6=US", "Real"},
        {"2.5.4.11=\"a+b\" + 2.5.4.3=Name", "Name"},
        {"2.5.4.10=Org + 2.5.4.11=\"2.5.4.3=PlainSigner\"", ""},
    };
    for (const Row& row : rows) {
        CAPTURE(std::string(row.subject));
        CHECK(TarnUtils::ExtractX500NameString(row.subject, "2.5.4.3") == row.commonName);
    }
}
