// The text form: what is said of a bad line, and files.
#include "tests/platform/rtsock/model/model_fixture.h"

#include <stdlib.h>
#include <unistd.h>

TEST_F(ModelTest, a_bad_line_is_told_and_adds_nothing)
{
    static const struct { const char *line, *says; } rows[] = {
        { "", "" },
        { "  table blue\tindex 3 family inet   # a comment\r\n", "" },
        { "tabel", "22 found 'tabel', expected table, device, unit, family, address, nexthop or route" },
        { "table", "22 'table' ends too early" },
        { "table red family inet", "22 'index' is missing" },
        { "table red index 65535 family inet", "22 found '65535', expected a number from 0 to 65534" },
        { "table red index 4 family inet mtu 5", "22 found 'mtu', which does not belong to 'table'" },
        { "table blue index 4 family inet", "17 table: it is there already" },
        { "table blue index 3 family iso tenant 7", "" },
        { "device d index 1 mac 02:00:00:00:00:011", "22 found '02:00:00:00:00:011', expected a MAC address" },
        { "device d index 1", "" },
        { "unit e.0 index 5", "2 unit: its device or its parent is not there" },
        { "unit d index 5", "22 unit: the name of a unit is DEVICE.NUMBER" },
        { "unit d.0 index 0", "22 found '0', expected a number from 1 to 4294967295" },
        { "unit d.0 index 5 parent 5", "22 unit: its values do not go together" },
        { "family 5 inet", "2 family: its unit is not there" },
        { "unit d.0 index 5", "" },
        { "family 5 inet6 donor 4", "" },
        { "address 5 inet6 2001:db8::1/129", "22 found '129', expected a number from 0 to 128" },
        { "address 5 inet6 2001:db8::1/64", "" },
        { "nexthop 6 family inet6 type ucst address 2001:db8::2/64",
          "22 found '2001:db8::2/64', expected an address of the family" },
        { "nexthop 6 family inet6 type ucst interface 5 address 2001:db8::2", "" },
        { "route blue inet6 ::/0 type user nexthop 6", "2 route: its table or its next hop is not there" },
        { "route default inet6 ::/0 type user nexthop 6", "" },
        { "nexthop 0 family inet type ucst", "22 found '0', expected a number from 1 to 4294967295" },
        { "nexthop 77 address 10.1.1.1 type ucst family inet", "" },
    };
    for (const auto &row : rows) EXPECT_EQ(line(row.line), row.says) << row.line;
    heard();
    lines({ "route default inet6 2001:db8::/32 type perm nexthop 6" });
    EXPECT_EQ(heard(), "add 0 28 32.1.13.184/32 5 6");
}

TEST_F(ModelTest, a_file_counts_up_to_its_first_bad_line)
{
    char path[] = "/tmp/model_test.XXXXXX", error[256] = "";
    int fd = mkstemp(path);
    const char text[] = "table blue index 3 family inet\n\ntable red index 4\ntable green index 5 family inet\n";
    EXPECT_EQ(write(fd, text, strlen(text)), ssize_t(strlen(text)));
    close(fd);
    EXPECT_EQ(rtsock_model_load(path, error, sizeof error), TARGET_EINVAL);
    EXPECT_EQ(error, path + std::string(":3: 'family' is missing"));
    EXPECT_EQ(heard(), "add 3 2 blue");
    unlink(path);
    EXPECT_EQ(rtsock_model_load(path, error, sizeof error), TARGET_ENOENT);
    EXPECT_EQ(error, path + std::string(": No such file or directory"));
}
