#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

class IdbClassification : public Idb {
  protected:
    // Kind of a new interface with these attributes of its handle and this type at the manager.
    uint32_t kind(uint32_t attributes, uint16_t im_type, ifhtype parent = 0, int is_mdt = 0) {
        const ifhtype ifh = next_++;
        platform_ifhandle_set(ifh, attributes);
        im_.add(ifh, ("if" + std::to_string(ifh)).c_str(), im_type, parent);
        cerrno rc = 1;
        last_ = ipv4mc_idb_alloc(ifh, 0, nullptr, &rc, is_mdt);
        EXPECT_EQ(rc, 0U);
        return last_ != nullptr ? last_->type : 1000;
    }

    ifhtype parent_of_type(uint16_t im_type) {
        const ifhtype ifh = next_++;
        im_.add(ifh, ("parent" + std::to_string(ifh)).c_str(), im_type);
        return ifh;
    }

    static constexpr uint32_t remote = PLATFORM_IFH_VIRTUAL;
    static constexpr uint32_t local = PLATFORM_IFH_VIRTUAL | PLATFORM_IFH_LOCAL;
    ifhtype next_ = 100;
    ipv4mc_idb_st *last_ = nullptr;
};

TEST_F(IdbClassification, FollowsHandleAndType) {
    EXPECT_EQ(kind(PLATFORM_IFH_LOCAL, 70), uint32_t{idb_type_physical}) << "not virtual";
    EXPECT_EQ(kind(0, 37), uint32_t{idb_type_physical}) << "not virtual, not local";
    EXPECT_EQ(kind(remote, 0), uint32_t{idb_type_other});
    EXPECT_EQ(kind(local, 0), uint32_t{idb_type_other}) << "no type ends it before the handle";
    for (const uint32_t attributes : {remote, local}) {
        EXPECT_EQ(kind(attributes, 70), uint32_t{idb_type_svi});
        EXPECT_EQ(kind(attributes, 71), uint32_t{idb_type_svi});
        EXPECT_EQ(kind(attributes, 37), uint32_t{idb_type_tunnel});
        EXPECT_EQ(last_->subtype, 0U);
        EXPECT_EQ(kind(attributes, 66), uint32_t{idb_type_pppoe});
        EXPECT_EQ(last_->im_type, 0);
        EXPECT_EQ(kind(attributes, 64), uint32_t{idb_type_mdt});
        EXPECT_EQ(last_->subtype, uint32_t{IPV4MC_IDB_MDT_TMI});
    }
    EXPECT_EQ(kind(local, 78), uint32_t{idb_type_physical});
    EXPECT_EQ(kind(local, 25), uint32_t{idb_type_physical});
    EXPECT_EQ(kind(local, 82), uint32_t{idb_type_physical});
    EXPECT_EQ(kind(remote, 78), uint32_t{idb_type_bvi});
    EXPECT_EQ(kind(remote, 82), uint32_t{idb_type_pw_ether});
    EXPECT_EQ(kind(remote, 84), uint32_t{idb_type_pw_ether});
    EXPECT_EQ(kind(remote, 16), uint32_t{idb_type_physical});
    EXPECT_EQ(kind(remote, 256), uint32_t{idb_type_other}) << "a type without a kind";
}

TEST_F(IdbClassification, OfASubinterfaceFollowsItsParent) {
    EXPECT_EQ(kind(remote, 25, parent_of_type(82)), uint32_t{idb_type_pw_ether_vlan});
    EXPECT_EQ(kind(remote, 25, parent_of_type(84)), uint32_t{idb_type_pw_ether_vlan});
    EXPECT_EQ(kind(remote, 25, parent_of_type(16)), uint32_t{idb_type_other});
    EXPECT_TRUE(heard_.errors().empty());
    EXPECT_EQ(kind(remote, 25, 0), uint32_t{idb_type_other}) << "no parent";
    char text[100];
    snprintf(text, sizeof(text), "Cannot lookup parent ifhandle for 0x%x, rc 0x0 ", last_->ifh);
    EXPECT_TRUE(contains(heard_.errors(), text));
}

TEST_F(IdbClassification, IsMdtWhereTheCallerSaysSo) {
    EXPECT_EQ(kind(PLATFORM_IFH_LOCAL, 16, 0, 1), uint32_t{idb_type_mdt});
    EXPECT_EQ(last_->subtype, 0U);
    EXPECT_EQ(kind(remote, 70, 0, 1), uint32_t{idb_type_mdt});
}

TEST_F(IdbClassification, IsOtherForAVirtualHandleWithoutAManager) {
    ip6mc_update_im_context(nullptr);
    heard_.clear();
    EXPECT_EQ(kind(remote, 70), uint32_t{idb_type_other});
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB),
                         "Multicast Library IM LDP connection not initialized - cannot lookup "
                         "interface"));
    EXPECT_TRUE(heard_.errors().empty());
}

TEST_F(IdbClassification, AsksForTheTypeOfAHandle) {
    im_.add(7, "seven", 71);
    heard_.clear();
    EXPECT_EQ(ipv4mc_ifh_get_im_intf_type(7), 71);
    EXPECT_TRUE(
        contains(heard_.lines(IPV4_DEBUG_IDB), "IMC type lookup for ifh 0x7, intf_type 71, rc=("));
    EXPECT_EQ(ipv4mc_ifh_get_im_intf_type(8), 0) << "not known";
    EXPECT_TRUE(heard_.errors().empty());
    EXPECT_EQ(ipv4mc_ifh_get_im_intf_type(0), 0);
    EXPECT_EQ(heard_.errors(),
              std::vector<std::string>{"NULLIFHNDL passed  in ipv4mc_ifh_get_im_intf_type"});
}

TEST(IdbTypes, OfAnSviAreSeventyAndSeventyOne) {
    for (uint32_t type = 0; type < 300; ++type) {
        EXPECT_EQ(ip6mc_iftype_is_svi(type) != 0, type == 70 || type == 71) << type;
    }
}

}  // namespace
}  // namespace idb_test
