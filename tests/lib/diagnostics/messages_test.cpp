#include <gtest/gtest.h>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

namespace {

struct catalogued {
    const orv_msg_rec *(*record)();
    const orv_msg_limit *(*limit)();
    const char *name;
    const char *format;
    uint32_t severity;
    uint32_t seconds;
    uint32_t number;
};

#define ROW(name, NAME, format, severity, seconds, number)                                  \
    {                                                                                       \
        orv_msg_rec_ipv4_mlib_##name##_getfn, orv_msg_limit_ipv4_mlib_##name##_getfn, NAME, \
            format, severity, seconds, number                                               \
    }

const catalogued catalogue[] = {
    ROW(datapath_control, "DATAPATH_CONTROL", "im_caps_datapath_control error in function %s : %s",
        3, 60, 0x6c9000d),
    ROW(delete_fail, "DELETE_FAIL", "Delete Failed for (%s %s/%d) from %s table %s\n", 3, 60,
        0x6c9000e),
    ROW(event_conn_mgr, "EVENT_CONN_MGR", "Cannot open event connection manager: %s", 3, 60,
        0x6c9000f),
    ROW(event_mgr, "EVENT_MGR", "Cannot create event manager: %s", 3, 60, 0x6c90010),
    ROW(per_prefix, "PER_PREFIX", "%s %s", 5, 60, 0x6c90011),
    ROW(per_prefix_glacial, "PER_PREFIX_GLACIAL", "%s %s", 5, 300, 0x6c90012),
    ROW(shmwin_err, "SHMWIN_ERR", "%s %s: %s", 3, 60, 0x6c90013),
    ROW(state_err, "STATE_ERR", "%s %s", 3, 60, 0x6c90014),
    ROW(svd, "SVD", "%s", 5, 60, 0x6c90015),
    ROW(table_per_prefix, "TABLE_PER_PREFIX", "Cannot %s per prefix accounting for table %s. %s %s",
        5, 60, 0x6c90016),
};

}  // namespace

TEST(Catalogue, EachMessageHasItsRecordAndItsLimit) {
    for (const catalogued &row : catalogue) {
        const orv_msg_rec *record = row.record();
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(row.record(), record);
        EXPECT_STREQ(record->name, row.name);
        EXPECT_STREQ(record->format, row.format) << row.name;
        EXPECT_STREQ(record->facility, "IPV4_MLIB");
        EXPECT_STREQ(record->category, "ROUTING");
        EXPECT_EQ(record->severity, row.severity) << row.name;
        EXPECT_EQ(record->number, row.number) << row.name;
        EXPECT_EQ(record->limit, row.limit()) << row.name;
        EXPECT_EQ(row.limit()->seconds, row.seconds) << row.name;
    }
}

TEST(Catalogue, LimitsAreOfEachMessageAlone) {
    for (const catalogued &row : catalogue) {
        for (const catalogued &other : catalogue) {
            EXPECT_EQ(row.limit() == other.limit(), row.record == other.record)
                << row.name << " " << other.name;
        }
    }
}

TEST(Catalogue, AMessageIsSentWithItsArguments) {
    const kit::run_dir dir;
    const kit::listener heard;
    orv_errmsg(orv_msg_rec_ipv4_mlib_table_per_prefix_getfn(), 5, "enable", "red", "because", "so");
    ASSERT_EQ(heard.messages().size(), 1U);
    EXPECT_EQ(heard.messages()[0].line,
              "ROUTING-IPV4_MLIB-5-TABLE_PER_PREFIX: Cannot enable per prefix accounting for table "
              "red. because so");
}
