#include <algorithm>
#include <map>
#include <random>

#include "tests/kit/service_faults.h"
#include "tests/lib/removal/rig.h"

using namespace bed;

namespace {

using InheritForward = rig::SharedOrNot;

void change(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, uint64_t attributes,
            cerrno expected = 0) {
    const uint64_t old = route->attributes;
    route->attributes = attributes;
    EXPECT_EQ(commit(table, route, 0, old), expected);
}

uint64_t parent_changes() {
    uint64_t count = 0;
    for (uint64_t n = 0; n < sim_log_count(); ++n) {
        count += sim_log_at(n)->op == SIM_OP_CHANGE_IF_PARENT ? 1 : 0;
    }
    return count;
}

constexpr uint64_t IA = MRIB_ROUTE_IA;
constexpr uint64_t IF = MRIB_ROUTE_IF;

}  // namespace

TEST_P(InheritForward, ARouteWithNothingBehindItChangesNothing) {
    auto *route = add(table, star_g("ff3e::", 32), IF);
    forget();
    EXPECT_EQ(ipv4mc_process_setclear_IF_flag(table, route, 1), 0U);
    EXPECT_EQ(ipv4mc_process_setclear_IF_flag(table, route, 0), 0U);
    EXPECT_EQ(parent_changes(), 0U);
    EXPECT_TRUE(errors().empty());
}

TEST_P(InheritForward, ChildrenTurnToAParentThatComesAndHearOfItAfterIt) {
    auto *child = add(table, sg(1), IA);
    auto *plain = add(table, sg(2));
    EXPECT_EQ(child->IF_parent, nullptr);
    forget();
    auto *parent = add(table, star_g("ff3e::", 32), IF);
    EXPECT_EQ(child->IF_parent, parent);
    EXPECT_EQ(plain->IF_parent, nullptr);
    EXPECT_EQ(platform_calls(), (texts{"route 8 new 1 -> 0", "change_IF_parent 0 new 0 -> 0"}));
    EXPECT_TRUE(rig::has_text(heard.lines(IPV4_DEBUG_EV),
                              "Route (2001:db8::1,ff3e::1/256). New IF parent is (*,ff3e::/32)"));
    EXPECT_TRUE(
        rig::has_text(heard.lines(IPV4_DEBUG_EV), "Route (2001:db8::1,ff3e::2/256) IA not set"));
}

TEST_P(InheritForward, ALeafWhoseCommitWasRefusedNamesNoParent) {
    auto *parent = add(table, star_g("ff3e::", 32), IF);
    auto *child = create(table, sg(1));
    child->attributes = IA;
    sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 1, EIO);
    EXPECT_EQ(commit(table, child, 1), cerrno{EIO});
    EXPECT_EQ(child->IF_parent, nullptr);
    // The parent may go meanwhile; the leaf may come without IA.
    EXPECT_EQ(rig::erase(table, parent), 0U);
    child->attributes = 0;
    EXPECT_EQ(commit(table, child, 1), 0U);
    EXPECT_EQ(child->IF_parent, nullptr);
}

TEST_P(InheritForward, ChildrenLeaveAParentThatGoesBeforeThePlatformHearsOfIt) {
    auto *grand = add(table, star_g("ff00::", 8), IF);
    auto *parent = add(table, star_g("ff3e::", 32), IA | IF);
    auto *child = add(table, sg(1), IA);
    ASSERT_EQ(child->IF_parent, parent);
    forget();
    change(table, parent, IA);
    EXPECT_EQ(child->IF_parent, grand);
    EXPECT_EQ(platform_calls(), (texts{"change_IF_parent 0 new 0 -> 0", "route 8 new 0 -> 0"}));
    forget();
    change(table, grand, 0);
    EXPECT_EQ(child->IF_parent, nullptr);
    EXPECT_EQ(parent_changes(), 1U);  // the range between them still names itself
}

TEST_P(InheritForward, ALeafUnderAMoreSpecificParentIsLeftAlone) {
    auto *wide = add(table, star_g("ff3e::", 16));
    auto *narrow = add(table, star_g("ff3e::1"), IF);
    auto *child = add(table, sg(1), IA);
    ASSERT_EQ(child->IF_parent, narrow);
    forget();
    change(table, wide, IF);
    EXPECT_EQ(child->IF_parent, narrow);
    change(table, wide, 0);
    EXPECT_EQ(child->IF_parent, narrow);
    EXPECT_EQ(parent_changes(), 0U);
}

TEST_P(InheritForward, AStarGRouteMayTurnToItselfAndAShorterOneMayNot) {
    auto *star = add(table, star_g("ff3e::1"), IA);
    auto *range = add(table, star_g("ff3e::", 64), IA);
    forget();
    change(table, star, IA | IF);
    EXPECT_EQ(star->IF_parent, star);
    EXPECT_EQ(parent_changes(), 1U);
    change(table, star, IA);
    EXPECT_EQ(star->IF_parent, nullptr);
    EXPECT_EQ(parent_changes(), 2U);
    change(table, range, IA | IF);
    EXPECT_EQ(range->IF_parent, nullptr);  // the walk starts behind it
    EXPECT_EQ(star->IF_parent, range);
    EXPECT_EQ(parent_changes(), 3U);
}

TEST_P(InheritForward, TheWalkGoesOnBehindThePrefix) {
    auto *parent = add(table, star_g("ff3e::", 32));
    add(table, star_g("ff4e::1"));
    forget();
    change(table, parent, IF);
    EXPECT_TRUE(rig::has_text(heard.lines(IPV4_DEBUG_EV), "Route (*,ff4e::1/128) IA not set"));
}

TEST_P(InheritForward, LeavesOfAnotherTableEndTheWalk) {
    ipv4mc_table_st *behind = make_table(0xe0000007, 0x60000007, "late");
    auto *foreign = add(behind, sg(1), IA);
    auto *parent = add(table, star_g("ff3e::", 32));
    auto *child = add(table, sg(1), IA);
    forget();
    change(table, parent, IF);
    EXPECT_EQ(child->IF_parent, parent);
    EXPECT_EQ(foreign->IF_parent, nullptr);
    EXPECT_EQ(rig::has_text(heard.lines(IPV4_DEBUG_EV),
                            "Route (2001:db8::1,ff3e::1/256). Table does not match "),
              GetParam() == 1);
}

TEST_P(InheritForward, AFailingPlatformKeepsTheParentAndTheOthersAreDone) {
    auto *parent = add(table, star_g("ff3e::", 32));
    auto *first = add(table, sg(1), IA);
    auto *second = add(table, sg(2), IA);
    sim_arm_fault(SIM_OP_CHANGE_IF_PARENT, SIM_ANY_ACTION, 0, 1, 71);
    forget();
    change(table, parent, IF, 14);
    EXPECT_EQ(first->IF_parent, parent);
    EXPECT_EQ(second->IF_parent, parent);
    EXPECT_EQ(parent->attributes, IF);
    EXPECT_EQ(parent_changes(), 2U);
    auto said = errors();
    EXPECT_TRUE(rig::has_text(
        said,
        "Error while changing IF parent for 0xe0000005(red):(2001:db8::1,ff3e::1/256) passed "
        "IF_parent is (*,ff3e::/32): 71 "));
    EXPECT_TRUE(
        rig::has_text(said, "Failed to set IF flag for (*,ff3e::/32) action 8 COMMIT  Error 14 "));
    sim_arm_fault(SIM_OP_CHANGE_IF_PARENT, SIM_ANY_ACTION, 1, 1, 71);
    change(table, parent, 0, 14);
    EXPECT_EQ(first->IF_parent, nullptr);
    EXPECT_EQ(second->IF_parent, nullptr);
    EXPECT_TRUE(rig::has_text(
        errors(),
        "Error while deleting IF parentfor (2001:db8::1,ff3e::2/256) table 0xe0000005(red) "
        "passed IF_parent is (*,ff3e::/32): 71 "));
}

TEST_P(InheritForward, ARouteThatIsNotInTheTrieIsAFailure) {
    auto *route = create(table, star_g("ff3e::", 32));
    forget();
    EXPECT_EQ(ipv4mc_process_setclear_IF_flag(table, route, 1), 14U);
    EXPECT_TRUE(
        rig::has_text(errors(), "Cannot find first route for 0xe0000005(red) Gtrie error "));
}

TEST_P(InheritForward, ATrieThatFailsEndsTheWalk) {
    auto *parent = add(table, star_g("ff3e::", 32));
    auto *first = add(table, sg(1), IA);
    auto *second = add(table, sg(2), IA);
    const std::string code = cerr_strerror(5);
    // Behind the route itself, and behind the first child.
    for (const uint64_t passed : {0U, 1U}) {
        first->IF_parent = second->IF_parent = nullptr;
        parent->attributes = 0;
        kit::fail_service("ip6mc_gtrie_platform_next_leaf", 5, 1, passed);
        forget();
        change(table, parent, IF, 14);
        EXPECT_EQ(errors()[0],
                  "Cannot find successor for (" +
                      std::string(passed == 0 ? "*,ff3e::/32" : "2001:db8::1,ff3e::1/256") +
                      ") in 0xe0000005(red): " + code);
        EXPECT_EQ(first->IF_parent, nullptr);
        EXPECT_EQ(second->IF_parent, nullptr);
    }
    kit::heal_services();
    kit::fail_service("ip6mc_gtrie_platform_first_leaf", 5);
    forget();
    EXPECT_EQ(ipv4mc_process_setclear_IF_flag(table, parent, 1), 14U);
    EXPECT_EQ(errors(), texts{"Cannot find first route for 0xe0000005(red) Gtrie error " + code});
    kit::heal_services();
}

TEST_P(InheritForward, AChildWhoseParentIsNotFoundStaysAndTheOthersTurn) {
    auto *parent = add(table, star_g("ff3e::", 32));
    auto *first = add(table, sg(1), IA);
    auto *second = add(table, sg(2), IA);
    kit::fail_service("ip6mc_gtrie_platform_less_specific_of_leaf", 5);
    forget();
    change(table, parent, IF, 14);
    EXPECT_EQ(first->IF_parent, nullptr);
    EXPECT_EQ(second->IF_parent, parent);
    EXPECT_TRUE(rig::has_text(errors(),
                              "0xe0000005(red): Cannot get parent of "
                              "(2001:db8::1,ff3e::1/256) set IF flagError 14 "));
    // On the way off: the child's own search, then that of the parent that goes.
    first->IF_parent = parent;
    kit::fail_service("ip6mc_gtrie_platform_less_specific_of_leaf", 5, 1, 1);
    forget();
    change(table, parent, 0, 14);
    EXPECT_EQ(first->IF_parent, parent);
    EXPECT_EQ(second->IF_parent, nullptr);
    EXPECT_TRUE(rig::has_text(
        errors(),
        "0xe0000005(red): Cannot get parent of (2001:db8::1,ff3e::1/256) clear IF flag "
        "passed IF_parent is (*,ff3e::/32) Error 14 "));
    kit::heal_services();
    kit::fail_service("ip6mc_gtrie_platform_less_specific_of_leaf", 5);
    second->IF_parent = parent;
    parent->attributes = IF;
    forget();
    change(table, parent, 0, 14);
    EXPECT_TRUE(rig::has_text(errors(), "(2001:db8::1,ff3e::1/256) clear IF flagError 14 "));
    EXPECT_EQ(second->IF_parent, nullptr);
    kit::heal_services();
}

namespace {

// The plain model: every route in one list, the parent is the longest route with IF that covers.
struct model_route {
    key k;
    uint64_t attributes = 0;
    ipv4mc_route_entry_st *record = nullptr;
    const model_route *parent = nullptr;
};

bool same_bits(const ip_maddr_st &a, const ip_maddr_st &b, uint32_t bits) {
    for (uint32_t bit = 0; bit < bits; ++bit) {
        const uint8_t mask = static_cast<uint8_t>(0x80 >> (bit % 8));
        if ((a.bytes[bit / 8] & mask) != (b.bytes[bit / 8] & mask))
            return false;
    }
    return true;
}

bool covers(const model_route &above, const model_route &below) {
    if (above.k.length > 128)
        return &above == &below;
    return above.k.length <= below.k.length &&
           same_bits(above.k.group, below.k.group, above.k.length);
}

class model {
  public:
    explicit model(ipv4mc_table_st *table) : table_(table) {}

    model_route *present(const key &k) {
        for (auto &r : routes_) {
            if (r->k.length == k.length && std::memcmp(&r->k.group, &k.group, 16) == 0 &&
                std::memcmp(&r->k.source, &k.source, 16) == 0) {
                return r.get();
            }
        }
        return nullptr;
    }

    void add(const key &k, uint64_t attributes) {
        routes_.push_back(
            std::make_unique<model_route>(model_route{k, attributes, nullptr, nullptr}));
        model_route &r = *routes_.back();
        r.record = bed::add(table_, k, attributes);
        r.parent = (attributes & IA) != 0 ? best(r) : nullptr;
        follow(r, 0, attributes);
    }

    void change(model_route &r, uint64_t attributes) {
        const uint64_t old = r.attributes;
        r.attributes = attributes;
        r.record->attributes = attributes;
        EXPECT_EQ(commit(table_, r.record, 0, old), 0U);
        if ((old & IF) != 0 && (attributes & IF) == 0)
            follow(r, old, attributes);
        if ((attributes & IA) == 0)
            r.parent = nullptr;
        if ((old & IA) == 0 && (attributes & IA) != 0)
            r.parent = best(r);
        if ((old & IF) == 0 && (attributes & IF) != 0)
            follow(r, old, attributes);
    }

    void erase(model_route &r) {
        const uint64_t old = r.attributes;
        r.attributes &= ~IF;
        r.record->attributes = r.attributes;
        follow(r, old, r.attributes);
        EXPECT_EQ(rig::erase(table_, r.record, old), 0U);
        // A range that gained IF of its own was passed by, and named its old parent to the last.
        std::vector<model_route *> left;
        for (auto &other : routes_) {
            if (other.get() != &r && other->parent == &r)
                left.push_back(other.get());
        }
        for (auto it = routes_.begin(); it != routes_.end(); ++it) {
            if (it->get() == &r) {
                routes_.erase(it);
                break;
            }
        }
        for (model_route *other : left)
            other->parent = best(*other);
    }

    std::string check() const {
        for (const auto &r : routes_) {
            const ipv4mc_route_entry_st *expected =
                r->parent == nullptr ? nullptr : r->parent->record;
            if (r->record->IF_parent != expected)
                return "parent of length " + std::to_string(r->k.length);
        }
        return "";
    }

    // The routes that moved since the last question, by their records.
    std::vector<const void *> take_moved() {
        std::vector<const void *> records = std::exchange(moved_, {});
        std::sort(records.begin(), records.end());
        return records;
    }
    const std::vector<std::unique_ptr<model_route>> &routes() const { return routes_; }

  private:
    const model_route *best(const model_route &below) const {
        const model_route *found = nullptr;
        for (const auto &r : routes_) {
            if ((r->attributes & IF) != 0 && covers(*r, below) &&
                (found == nullptr || r->k.length > found->k.length)) {
                found = r.get();
            }
        }
        return found;
    }

    // The flag IF of `changed` came or went: only those that it gains or loses move, and of the
    // route itself only a (*,G).
    void follow(const model_route &changed, uint64_t old, uint64_t now) {
        if (((old ^ now) & IF) == 0)
            return;
        for (auto &r : routes_) {
            if ((r->attributes & IA) == 0 || !covers(changed, *r))
                continue;
            if (r.get() == &changed && changed.k.length != 128)
                continue;
            const model_route *right = best(*r);
            const bool nearer = right != nullptr && right->k.length > changed.k.length;
            const bool mine =
                (now & IF) != 0 ? right == &changed : r->parent == &changed && !nearer;
            if (mine && r->parent != right) {
                r->parent = right;
                moved_.push_back(r->record);
            }
        }
    }

    ipv4mc_table_st *table_;
    std::vector<std::unique_ptr<model_route>> routes_;
    std::vector<const void *> moved_;
};

// The routes of whose new parent the platform has heard, each as often as it did.
std::vector<const void *> told_to_platform() {
    std::vector<const void *> records;
    for (uint64_t n = 0; n < sim_log_count(); ++n) {
        if (sim_log_at(n)->op == SIM_OP_CHANGE_IF_PARENT)
            records.push_back(sim_log_at(n)->record);
    }
    std::sort(records.begin(), records.end());
    return records;
}

key random_key(std::mt19937 &random) {
    static const uint16_t lengths[] = {8, 16, 24, 32, 64, 112, 120, 127, 128};
    ip_maddr_st group = address("ff3e::");
    group.bytes[1] = static_cast<uint8_t>(0x30 + random() % 2);
    group.bytes[3] = static_cast<uint8_t>(random() % 2);
    group.bytes[15] = static_cast<uint8_t>(random() % 4);
    if (random() % 3 == 0)
        return {numbered("2001:db8::", static_cast<uint32_t>(random() % 3 + 1)), group, 256};
    const uint16_t length = lengths[random() % 9];
    for (uint32_t bit = length; bit < 128; ++bit) {
        group.bytes[bit / 8] = static_cast<uint8_t>(group.bytes[bit / 8] & ~(0x80 >> (bit % 8)));
    }
    return {{}, group, length};
}

}  // namespace

TEST_P(InheritForward, EveryParentIsThatOfAPlainModelAndThePlatformHearsOfEachChangeOnce) {
    ipv4_debug_switch(nullptr, 0, ~uint64_t{0});
    ipv4mc_table_st *behind = make_table(0xe0000007, 0x60000007, "late");
    std::mt19937 random(20261121);
    static const uint64_t words[] = {0, IA, IF, IA | IF};
    for (int round = 0; round < 3; ++round) {
        model plain(table);
        sim_log_on(4096);
        for (uint32_t n = 0; n < 5; ++n)
            add(behind, {{}, numbered("ff30::", n + 100 * static_cast<uint32_t>(round)), 128}, IA);
        sim_log_clear();
        for (int step = 0; step < 700; ++step) {
            const key k = random_key(random);
            const uint64_t word = words[random() % 4];
            model_route *known = plain.present(k);
            if (known == nullptr) {
                plain.add(k, word);
            } else if (random() % 4 == 0) {
                plain.erase(*known);
            } else {
                plain.change(*known, word);
            }
            ASSERT_EQ(plain.check(), "") << "step " << step;
            ASSERT_EQ(told_to_platform(), plain.take_moved()) << "step " << step;
            sim_log_clear();
        }
        while (!plain.routes().empty()) {
            plain.erase(*plain.routes()[random() % plain.routes().size()]);
            ASSERT_EQ(plain.check(), "");
        }
        EXPECT_EQ(table->rate_route_count, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Tries, InheritForward, testing::Values(0, 1));
