// Change marks. What was read and settled is kept for the life of the process: this is a program of its own, and its
// first test needs a fresh one.
#include "tests/platform/confdb/alloc_faults.h"
#include "tests/platform/confdb/conf_fixture.h"

#include "platform/confdb/confdb.h"

using std::string;

static const char *const list_path[] = { "interfaces", "<*>", nullptr }, *const unit_path[] = { "unit", nullptr };

static string id(struct ddl_object *element)
{
    char name[64];
    return ddl_access_extract_id(element, name, sizeof name) < 0 ? "" : name;
}

class confdb_changes : public conf_fixture {
protected:
    /* Reads once and asks about the list of interfaces, or about unit 0 of interface a. */
    bool changed(bool of_unit = false, bool settle = false, int check = 0, int memory = -1)
    {
        EXPECT_EQ(ddl_access_open_db(0, "keld", nullptr, -2, check), 0) << ddl_access_strerror(1);
        struct ddl_object *object = ddl_access_object_find_by_name(nullptr, list_path, 0, 0, 0), *list = object;
        if (of_unit) {
            object = nullptr;
            while (ddl_access_visit_container(list, &object, 0) && id(object) != "a") continue;
            list = ddl_access_object_find_by_name(object, unit_path, 0, 0, 0);
            object = nullptr;
            while (ddl_access_visit_container(list, &object, 0) && id(object) != "0") continue;
        }
        good_allocations = memory;
        bool result = ddl_access_object_changed(object);
        if (settle) ddl_access_changes_settle();
        EXPECT_EQ(ddl_access_close_db(0, 0), 0);
        return result;
    }
    bool settle() { return changed(false, true); }
};

TEST_F(confdb_changes, which_readings_are_compared)
{
    commit("interfaces a { unit 0; }");
    EXPECT_FALSE(changed()) << "there is nothing before";
    write("/var/etc/keld.conf.1", "nonsense");
    EXPECT_FALSE(changed());
    write("/var/etc/keld.conf.1", "interfaces b;");
    EXPECT_TRUE(changed());

    write("/var/etc/keld.conf.candidate", "interfaces c;");
    EXPECT_FALSE(changed(false, true, 1)) << "a check marks nothing and settles nothing";
    commit("interfaces {");
    EXPECT_NE(ddl_access_open_db(0, "keld", nullptr, -2, 0), 0);
    commit("interfaces a { unit 0; unit 1; }");
    for (int opening = 0; opening < 3; opening++) EXPECT_TRUE(changed()) << "until it is settled";
    EXPECT_TRUE(settle());
    EXPECT_FALSE(changed()) << "whatever is kept";
}

TEST_F(confdb_changes, what_counts)
{
    const struct { string before, after; bool list, unit; } rows[] = {
        { "a { unit 0 { mtu 99; vlan-id 3; } }", "a /* */ { unit { 0 { vlan-id \"3\"; mtu 99; } } }", false, false },
        { "a { unit 0; }", "a { unit 0; } } chassis { cluster;", false, false },
        { "a { unit 0; }", "a { unit 0 { disable; } }", true, true },
        { "a { unit 0 { disable; } }", "a { unit 0 { mtu 1500; } }", true, true },
        { "a { unit 0 { family inet { address 10.0.0.1/8; } } }",
          "a { unit 0 { family inet { address 10.0.0.2/8; } } }", true, true },
        { "a { unit 0; }", "a { unit 0; unit 1; }", true, false },
        { "b; a { unit 0; }", "a { unit 0; } b;", true, false },
        { "a { mtu 1500; unit 0; }", "a { mtu 1501; unit 0; }", true, false },
        { "a { unit 1; }", "a { unit 0; unit 1; }", true, true },
    };
    for (const auto &row : rows) {
        commit("interfaces { " + row.before + " }");
        (void)settle();
        commit("interfaces { " + row.after + " }");
        EXPECT_EQ(changed(), row.list) << row.after;
        EXPECT_EQ(changed(true), row.unit) << row.after;
    }
}

TEST_F(confdb_changes, nothing_is_settled_without_memory_to_look)
{
    commit("interfaces a;");
    (void)settle();
    commit("interfaces b;");
    int memory = 0;
    while (!changed(false, true, 0, memory)) memory++;
    good_allocations = -1;
    EXPECT_GE(memory, 3);
    EXPECT_FALSE(changed());
}
