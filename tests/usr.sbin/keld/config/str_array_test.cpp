// String arrays: growth, look-up, and memory that is out.
#include "usr.sbin/keld/str_array.h"

#include "tests/platform/confdb/alloc_faults.h"

#include <gtest/gtest.h>

#include <string>

TEST(str_array, grows_by_doubling_and_keeps_the_order)
{
    struct str_array *array = str_array_add(nullptr, "0");
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->sa_capacity, 256u);
    for (int i = 1; i < 257; i++) array = str_array_add(array, std::to_string(i).c_str());
    EXPECT_EQ(array->sa_capacity, 512u);
    ASSERT_EQ(array->sa_count, 257);
    array = str_array_add(array, "17");
    for (int i = 0; i < 257; i++) EXPECT_EQ(str_array_find(array, std::to_string(i).c_str()), i);
    EXPECT_EQ(str_array_find(array, "257"), -1);

    str_array_clean(array);
    EXPECT_EQ(str_array_find(array, "17"), -1);
    array = str_array_add(array, "again");
    EXPECT_EQ(str_array_find(array, "again"), 0);
    EXPECT_EQ(array->sa_capacity, 512u);
    str_array_free(array);

    EXPECT_EQ(str_array_find(nullptr, "x"), -1);
    str_array_clean(nullptr);
    str_array_free(nullptr);
}

TEST(str_array, memory_is_out)
{
    good_allocations = 0;
    EXPECT_EQ(str_array_add(nullptr, "a"), nullptr);
    struct str_array *array = str_array_init(2);
    array = str_array_add(array, "a");
    good_allocations = 0;
    EXPECT_EQ(str_array_add(array, "lost"), array);   // takes a slot that holds nothing
    EXPECT_EQ(array->sa_count, 2);
    EXPECT_EQ(str_array_find(array, "lost"), -1);
    good_allocations = 0;
    EXPECT_EQ(str_array_add(array, "c"), nullptr);    // cannot grow
    EXPECT_EQ(array->sa_count, 2);
    EXPECT_EQ(str_array_find(array, "a"), 0);
    array = str_array_add(array, "c");
    EXPECT_EQ(str_array_find(array, "c"), 2);
    str_array_free(array);

    array = str_array_add(str_array_init(0), "x");
    EXPECT_EQ(str_array_find(array, "x"), 0);
    str_array_free(array);
}
