#include <gtest/gtest.h>

#include <cerrno>

#include "services/imc/backend.h"
#include "services/imc/imc.h"
#include "services/imc/table.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

constexpr cerrno einval = EINVAL;

int closed = 0;
int state_of_good = 0;

cerrno open_good(imc_context_t *context, event_manager_t *, void **state) {
    *state = &state_of_good;
    return imc_backend_put(context, 1, "one", IMC_TYPE_PHYSICAL, 0);
}

void close_good(imc_context_t *, void *state) {
    EXPECT_EQ(state, &state_of_good);
    ++closed;
}

cerrno open_bad(imc_context_t *context, event_manager_t *, void **) {
    EXPECT_EQ(imc_backend_put(context, 1, "one", IMC_TYPE_PHYSICAL, 0), 0U);
    return EACCES;
}

const imc_backend_t good = {"good", open_good, close_good};
const imc_backend_t same_name = {"good", open_bad, nullptr};
const imc_backend_t bad = {"bad", open_bad, close_good};

TEST(imc_context, is_opened_and_closed_through_its_backend) {
    imc_context_t *context = nullptr;
    EXPECT_EQ(imc_context_open("good", nullptr, &context), IMC_NO_BACKEND);
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(imc_backend_register(&good), 0U);
    EXPECT_EQ(imc_backend_register(&good), 0U);
    EXPECT_EQ(imc_backend_register(&same_name), static_cast<cerrno>(EEXIST));
    ASSERT_EQ(imc_context_open("good", nullptr, &context), 0U);
    EXPECT_EQ(imc_backend_state(context), &state_of_good);
    uint32_t ifh = 0;
    EXPECT_EQ(imc_interface_find(context, "one", &ifh), 0U);
    EXPECT_EQ(ifh, 1U);
    imc_context_close(context);
    EXPECT_EQ(closed, 1);
    imc_context_close(nullptr);
}

TEST(imc_context, a_backend_that_cannot_open_leaves_nothing) {
    EXPECT_EQ(imc_backend_register(&bad), 0U);
    imc_context_t *context = nullptr;
    closed = 0;
    EXPECT_EQ(imc_context_open("bad", nullptr, &context), static_cast<cerrno>(EACCES));
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(closed, 0);
}

TEST(imc_context, refuses_bad_arguments) {
    imc_context_t *context = nullptr;
    EXPECT_EQ(imc_context_open(nullptr, nullptr, &context), einval);
    EXPECT_EQ(imc_context_open("table", nullptr, nullptr), einval);
    EXPECT_EQ(imc_watch(nullptr, nullptr, nullptr), einval);
    EXPECT_EQ(imc_backend_register(nullptr), einval);
    const imc_backend_t no_name = {nullptr, open_good, nullptr};
    const imc_backend_t no_open = {"no open", nullptr, nullptr};
    EXPECT_EQ(imc_backend_register(&no_name), einval);
    EXPECT_EQ(imc_backend_register(&no_open), einval);
}

TEST(imc_context, without_memory_there_is_none) {
    SKIP_WITHOUT_FAILING_MALLOC();
    imc_context_t *context = nullptr;
    const failing_malloc::scope none(0);
    EXPECT_EQ(imc_table_open(&context), static_cast<cerrno>(ENOMEM));
    EXPECT_EQ(context, nullptr);
}

TEST(imc_context, there_is_room_for_a_few_backends) {
    static imc_backend_t many[8];
    static char names[8][4];
    cerrno rc = 0;
    int registered = 0;
    for (int i = 0; i < 8 && rc == 0; ++i) {
        names[i][0] = static_cast<char>('a' + i);
        many[i] = {names[i], open_good, close_good};
        rc = imc_backend_register(&many[i]);
        registered += rc == 0 ? 1 : 0;
    }
    EXPECT_EQ(rc, static_cast<cerrno>(ENOSPC));
    EXPECT_GE(registered, 4);
}

}  // namespace
