// What the registry of sessions saves, and what it makes of a saved text.

#include <gtest/gtest.h>

#include <string>

#include "tests/support/scarce_memory.hpp"
#include "tests/unit/agent/sessions/session_manager_fixture.hpp"

TEST_F(SessionManager, SavesTheRegisteredOnesWithAPortInOrderOfAppIds) {
    const int states[] = {STATE_IDLE,       STATE_CREATE,    STATE_DELETE,    STATE_REGISTER,
                          STATE_UNREGISTER, STATE_TERMINATE, STATE_SIM_CHANGE};
    for (const int state : states) {
        add("z" + number(9 - state), "", state, 4000 + state);
        add("without port " + number(state), "", state);
    }
    EXPECT_EQ(saved(),
              "@o\ndat:json:{\"sessions\":["
              "{\"providerApplicationId\":\"z3\",\"ppgUrl\":\"\",\"launchString\":\"\","
              "\"token\":\"\",\"port\":4006},"
              "{\"providerApplicationId\":\"z4\",\"ppgUrl\":\"\",\"launchString\":\"\","
              "\"token\":\"\",\"port\":4005},"
              "{\"providerApplicationId\":\"z6\",\"ppgUrl\":\"\",\"launchString\":\"\","
              "\"token\":\"\",\"port\":4003}"
              "]}\nbehind::1\n");
}

TEST_F(SessionManager, SavesAnEmptyArrayWithoutRegisteredSessions) {
    add("app", "@ipc.1", STATE_CREATE, 4711);
    int result = 0;
    EXPECT_EQ(saved(&result), "@o\ndat:json:{\"sessions\":[]}\nbehind::1\n");
    EXPECT_EQ(result, 1);
}

TEST_F(SessionManager, OutOfMemoryWhileSavingGives0) {
    add(longText('a'), "", STATE_REGISTER, 4711);
    const ScarceMemory memory(kLongTextBytes);
    int result = 1;
    saved(&result);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(3,
                          "QuilSessionManager::save: exception occurred when trying to loop "
                          "through session map"));
}

TEST_F(SessionManager, LoadsEverySavedSession) {
    EXPECT_EQ(load("dat:json:{\"sessions\":[{\"providerApplicationId\":\"a\",\"port\":-1},"
                   "{\"providerApplicationId\":\"b\",\"port\":-1}]}\n",
                   true),
              1);
    EXPECT_TRUE(wasLogged(6, "Load: n_sessions [2]")) << recordedText();
    EXPECT_TRUE(m_manager.getSessionByAppId("a")->isTerminated());
    EXPECT_TRUE(m_manager.getSessionByAppId("b")->isTerminated());
    EXPECT_TRUE(isDecoderBack());
}

TEST_F(SessionManager, LoadsIntoSimChangeWithAnotherSim) {
    load("dat:json:{\"sessions\":[{\"providerApplicationId\":\"a\",\"port\":-1}]}\n", false);
    EXPECT_EQ(stateOf(*m_manager.getSessionByAppId("a")), STATE_SIM_CHANGE);
}

TEST_F(SessionManager, LoadOfNoSessionAddsNothingAndPopsBothLevels) {
    EXPECT_EQ(load("dat:json:{\"sessions\":[]}\n", true), 1);
    EXPECT_EQ(recordedText(), "6 Load: n_sessions [0]\n");
    EXPECT_TRUE(isDecoderBack());
}

TEST_F(SessionManager, LoadWithoutSessionsAddsNothingAndPopsBothLevels) {
    for (const char* dat :
         {"", "dat:json:{}\n", "dat::text\n", "dat:json:{\"sessions\":1}\n", "dat:json:[]\n"}) {
        clearRecordedLines();
        EXPECT_EQ(load(dat, true), 1) << dat;
        EXPECT_EQ(recordedText(), "6 Load: n_sessions [0]\n") << dat;
        EXPECT_TRUE(isDecoderBack()) << dat;
    }
}

TEST_F(SessionManager, LoadPassesOverElementsThatAreNoSessions) {
    EXPECT_EQ(load("dat:json:{\"sessions\":[1,\"x\",null,[],{},{\"providerApplicationId\":\"a\"},"
                   "{\"providerApplicationId\":\"\"}]}\n",
                   true),
              1);
    EXPECT_NE(m_manager.getSessionByAppId("a"), nullptr);
    EXPECT_EQ(countRecorded(3,
                            "QuilSessionManager::addSavedSession -- attempt to add session for "
                            "EMPTY provider app id"),
              6);
    EXPECT_TRUE(isDecoderBack());
}

TEST_F(SessionManager, LoadsWhatSaveWrote) {
    QuilSession& session = add("app \"1\"\n", "@ipc.1", STATE_REGISTER, 65000);
    session.setPpgUrl("http://ppg/?a=b&c");
    session.setLaunchString("\x01\t\\");
    session.setToken("\xc3\xa4");
    const std::string text = saved();
    m_manager.removeAll();
    pps_decoder_initialize(&m_decoder, text.c_str());
    pps_decoder_push(&m_decoder, nullptr);
    EXPECT_EQ(m_manager.load(&m_decoder, true), 1);
    EXPECT_EQ(saved(), text);
}
