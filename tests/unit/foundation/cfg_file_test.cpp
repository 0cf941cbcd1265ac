// Configuration documents: from the service, else from the file.
#include "corvosetup/cfg_file.h"

#include <pthread.h>

#include "service_fixture.h"

namespace {

using fake_vx::Answer;
using fake_vx::Call;
using fake_vx::reply;

class CfgFileTest : public ServiceFixture {
protected:
    CfgFileTest() : path_(dir_ / "qos.json") {}

    // The service does not know the document.
    void service_refuses() { vx().answers = {Answer{"", -1}}; }

    std::string call_failed() const { return "[ERROR] vx_call vesta.read_json path=" + path_ + " failed."; }
    std::string from_service() const { return "[DEBUG] Load config from VESTA: " + path_; }
    std::string from_file() const { return "[DEBUG] Load config from FILE: " + path_; }

    static Json::Value document(CfgFile& cfg) {
        Json::Value out = "untouched";
        cfg >> out;
        return out;
    }

    std::string path_;
};

TEST_F(CfgFileTest, DocumentComesFromTheService) {
    reply(R"({"error":0,"data":{"a":1}})");
    put(path_, R"({"a":2})");
    CfgFile cfg(path_);
    EXPECT_TRUE(cfg.good());
    EXPECT_EQ(cfg.get_cfg_flag(), 1);
    EXPECT_EQ(document(cfg)["a"], 1);
    EXPECT_EQ(lines(), Lines{from_service()});
    ASSERT_EQ(vx().calls.size(), 1U);
    EXPECT_EQ(call(), (Call{"vesta", "read_json", "{\"path\": \"" + path_ + "\"}", 5, -1}));
}

TEST_F(CfgFileTest, FileIsReadWhenTheServiceFails) {
    service_refuses();
    put(path_, R"({"a":2})");
    CfgFile cfg(path_);
    EXPECT_TRUE(cfg.good());
    EXPECT_EQ(cfg.get_cfg_flag(), 2);
    EXPECT_EQ(document(cfg)["a"], 2);
    EXPECT_EQ(lines(), (Lines{from_service(), call_failed(), from_file()}));
}

TEST_F(CfgFileTest, NeitherSourceGivesTwoErrorLinesAndNull) {
    service_refuses();
    CfgFile cfg(path_);
    EXPECT_FALSE(cfg.good());
    EXPECT_EQ(cfg.get_cfg_flag(), 0);
    EXPECT_TRUE(document(cfg).isNull());
    EXPECT_EQ(lines(),
              (Lines{from_service(), call_failed(), "[ERROR] Config file: [" + path_ + "] does not exist."}));
}

TEST_F(CfgFileTest, ServiceWithoutDataGivesANullDocumentThatIsGood) {
    reply(R"({"error":0})");
    put(path_, R"({"a":2})");
    CfgFile cfg(path_);
    EXPECT_TRUE(cfg.good());
    EXPECT_EQ(cfg.get_cfg_flag(), 1);
    EXPECT_TRUE(document(cfg).isNull());
}

TEST_F(CfgFileTest, BufferThatCannotBeMadeIs3022) {
    vx().refuse_create = true;
    CfgFile cfg(path_);
    EXPECT_EQ(lines(), (Lines{"[ERROR] vx_io_create() failed",
                              "[ERROR] Config file: [" + path_ + "] does not exist."}));
    EXPECT_EQ(cfg.vesta_to_json(), -3022);
}

TEST_F(CfgFileTest, RefusedCallIs3023) {
    service_refuses();
    CfgFile cfg(path_);
    EXPECT_EQ(cfg.vesta_to_json(), -3023);
    EXPECT_EQ(lines().back(), call_failed());
}

TEST_F(CfgFileTest, EmptyReplyIs3024) {
    reply("");
    CfgFile cfg(path_);
    EXPECT_EQ(cfg.vesta_to_json(), -3024);
    EXPECT_EQ(lines().back(), "[ERROR] vx_io_read() failed.");
}

TEST_F(CfgFileTest, UnreadableReplyIs3019) {
    for (const char* text : {"{", "5", "[]", "nonsense"}) {
        reply(text);
        CfgFile cfg(path_);
        EXPECT_EQ(cfg.vesta_to_json(), -3019);
        EXPECT_EQ(lines().back(), "[ERROR] JSON reader parse failed.") << text;
    }
}

TEST_F(CfgFileTest, ServiceErrorIs3019AndLogged) {
    reply(R"({"error":17})");
    CfgFile cfg(path_);
    EXPECT_EQ(cfg.vesta_to_json(), -3019);
    EXPECT_EQ(lines().back(), "[ERROR] VXservice get error: 17");
    reply("{}");
    EXPECT_EQ(cfg.vesta_to_json(), -3019);
    EXPECT_EQ(lines().back(), "[ERROR] VXservice get error: -3001");
}

TEST_F(CfgFileTest, CancellationThatCannotBeDisabledIsLoggedBeforeTheLoadGoesOn) {
    reply(R"({"error":0,"data":{"a":1}})");
    fake_process::refuse_cancel_state(PTHREAD_CANCEL_DISABLE);
    CfgFile cfg(path_);
    fake_process::reset();
    EXPECT_EQ(cfg.get_cfg_flag(), 1);
    EXPECT_EQ(lines(), (Lines{"[ERROR] pthread cancel disable error", from_service()}));
}

TEST_F(CfgFileTest, CancellationThatCannotBeEnabledIsLoggedBeforeTheFileIsTried) {
    service_refuses();
    put(path_, "{}");
    fake_process::refuse_cancel_state(PTHREAD_CANCEL_ENABLE);
    CfgFile cfg(path_);
    fake_process::reset();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    EXPECT_EQ(cfg.get_cfg_flag(), 2);
    EXPECT_EQ(lines(),
              (Lines{from_service(), call_failed(), "[ERROR] pthread cancel enable error", from_file()}));
}

TEST_F(CfgFileTest, FailedReloadKeepsFlagAndDocument) {
    reply(R"({"error":0,"data":{"a":1}})");
    CfgFile cfg(path_);
    service_refuses();
    EXPECT_EQ(cfg.vesta_to_json(), -3023);
    EXPECT_EQ(cfg.file_to_json(), -3015);
    EXPECT_EQ(cfg.get_cfg_flag(), 1);
    EXPECT_EQ(document(cfg)["a"], 1);
}

TEST_F(CfgFileTest, MissingFileIs3015) {
    service_refuses();
    CfgFile cfg(path_);
    EXPECT_EQ(cfg.file_to_json(), -3015);
    EXPECT_EQ(lines().back(), "[ERROR] Config file: [" + path_ + "] does not exist.");
}

TEST_F(CfgFileTest, SyntaxErrorInTheFileIs3019AndNull) {
    service_refuses();
    put(path_, "{\"a\": ");
    CfgFile cfg(path_);
    EXPECT_FALSE(cfg.good());
    EXPECT_TRUE(document(cfg).isNull());
    ASSERT_GE(lines().size(), 4U);
    EXPECT_EQ(lines()[2], from_file());
    EXPECT_TRUE(lines()[3].starts_with("[ERROR] File loaded Json ERROR: ")) << lines()[3];
    EXPECT_EQ(cfg.file_to_json(), -3019);
}

TEST_F(CfgFileTest, SyntaxErrorAfterAGoodLoadClearsTheDocumentAndKeepsTheFlag) {
    service_refuses();
    put(path_, R"({"a":2})");
    CfgFile cfg(path_);
    put(path_, "{");
    EXPECT_EQ(cfg.file_to_json(), -3019);
    EXPECT_TRUE(document(cfg).isNull());
    EXPECT_EQ(cfg.get_cfg_flag(), 2);
}

TEST_F(CfgFileTest, EmptyFileIs3019) {
    service_refuses();
    put(path_, "");
    CfgFile cfg(path_);
    EXPECT_EQ(cfg.file_to_json(), -3019);
}

TEST_F(CfgFileTest, DirectoryOpensAndThenDoesNotParse) {
    service_refuses();
    path_ = dir_.path();
    const int before = open_descriptors();
    CfgFile cfg(path_);
    EXPECT_EQ(cfg.file_to_json(), -3019);
    EXPECT_EQ(cfg.get_cfg_flag(), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(CfgFileTest, DocumentNestedTooDeeplyIs3019) {
    service_refuses();
    put(path_, std::string(5000, '['));
    CfgFile cfg(path_);
    EXPECT_EQ(cfg.file_to_json(), -3019);
}

TEST_F(CfgFileTest, DocumentThatIsNoObjectIsHandedOverAsItIs) {
    service_refuses();
    put(path_, "[1,2]");
    CfgFile list(path_);
    EXPECT_EQ(list.get_cfg_flag(), 2);
    EXPECT_EQ(document(list).size(), 2U);
    reply(R"({"error":0,"data":"text"})");
    CfgFile text(path_);
    EXPECT_EQ(text.get_cfg_flag(), 1);
    EXPECT_EQ(document(text), "text");
}

TEST_F(CfgFileTest, CommentsInAFileAreAccepted) {
    service_refuses();
    put(path_, "// uplink\n{\"a\": 1 /* one */}");
    CfgFile cfg(path_);
    EXPECT_EQ(document(cfg)["a"], 1);
}

TEST_F(CfgFileTest, QuotesInThePathAreEscapedInTheRequestOnly) {
    service_refuses();
    path_ = dir_ / "a\"b.json";
    put(path_, "{}");
    CfgFile cfg(path_);
    EXPECT_EQ(call().request, "{\"path\": \"" + dir_.path() + "/a\\\"b.json\"}");
    EXPECT_EQ(cfg.get_cfg_flag(), 2);
}

TEST_F(CfgFileTest, EmptyPathIsAMissingFile) {
    service_refuses();
    CfgFile cfg("");
    EXPECT_FALSE(cfg.good());
    EXPECT_EQ(lines().back(), "[ERROR] Config file: [] does not exist.");
}

TEST_F(CfgFileTest, CopyIsIndependent) {
    reply(R"({"error":0,"data":{"a":1}})");
    CfgFile cfg(path_);
    Json::Value first;
    cfg >> first;
    first["a"] = 5;
    EXPECT_EQ(document(cfg)["a"], 1);
}

TEST_F(CfgFileTest, LoadingLeavesNoDescriptorBehind) {
    service_refuses();
    put(path_, "{}");
    const int before = open_descriptors();
    for (int i = 0; i < 20; ++i) CfgFile cfg(path_);
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
