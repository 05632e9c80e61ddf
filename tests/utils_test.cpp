// Small services: the log file path and the product version record.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/log_capture.h"
#include "util/text.h"
#include "util/zyn_utils.h"

using namespace VBG;

TEST(Utils, LogFilePathJoinsFolderAndFileName) {
    EXPECT_EQ("/var/log/zyn/ZYNNativeVBG.log", Utils::GetAssetFullPath("/var/log/zyn"));
    EXPECT_EQ("/var/log/zyn/ZYNNativeVBG.log", Utils::GetAssetFullPath("/var/log/zyn/"));
}

TEST(Utils, ProductVersionOfFourNumbersFillsTheRecordInOrder) {
    const ZynNativeVersion v = Utils::ParseProductVersion("7.12.305.4");
    EXPECT_EQ(7u, v.major);
    EXPECT_EQ(12u, v.minor);
    EXPECT_EQ(305u, v.build);
    EXPECT_EQ(4u, v.revision);
    EXPECT_THROW(Utils::ParseProductVersion("1.x.3.4"), std::invalid_argument);
    EXPECT_THROW(Utils::ParseProductVersion("1.2"), std::invalid_argument);

    std::string name, version;
    ZynNativeVersion record{};
    ASSERT_TRUE(Utils::GetProductAndVersion(name, version, record));
    EXPECT_EQ("ZYNNativeVBG", name);
    EXPECT_EQ(version, std::to_string(record.major) + "." + std::to_string(record.minor) + "." +
                           std::to_string(record.build) + "." + std::to_string(record.revision));
}

TEST(Utils, ExceptionReportLogsCodeAndMessageAndReturnsTheCode) {
    zyn_test::LogCapture log;
    const HResultError error(static_cast<int32_t>(0x887A0005), "device gone");
    EXPECT_EQ(static_cast<int32_t>(0x887A0005),
              Utils::processException(error, "runMLModel failed."));
    EXPECT_TRUE(log.hasFrom("VBG::Utils::processException",
                            "runMLModel failed. HR:887A0005 , message: device gone"));
}

TEST(Utils, LibraryFolderIsAnExistingDirectory) {
    const std::string folder = Utils::GetLibraryFolder();
    ASSERT_FALSE(folder.empty());
    EXPECT_TRUE(std::filesystem::is_directory(folder));
}

TEST(Text, Utf8AndUtf16RoundTripIncludingAstralPlane) {
    const std::string utf8 = "a\xC3\xA9\xE6\xA8\xA1\xF0\x9F\x93\x81z";  // a é 模 📁 z
    const std::u16string utf16 = Text::Utf8ToUtf16(utf8);
    EXPECT_EQ(std::u16string(u"a\u00e9\u6a21\U0001F4C1z"), utf16);
    EXPECT_EQ(utf8, Text::Utf16ToUtf8(utf16));
    // Broken input never throws: it is replaced.
    EXPECT_EQ(std::u16string(u"\uFFFDx"), Text::Utf8ToUtf16("\xFFx"));
    EXPECT_EQ(std::u16string(u"\uFFFD"), Text::Utf8ToUtf16("\xE6\xA8"));
}

TEST(Text, FixedFieldsCopyOnlyWhatFits) {
    char16_t field[8];
    std::fill(std::begin(field), std::end(field), u'#');
    EXPECT_TRUE(Text::CopyToField(field, 8, std::string("abc"), 6));
    EXPECT_EQ("abc", Text::FieldToUtf8(field, 8));
    EXPECT_FALSE(Text::CopyToField(field, 8, std::string("abcdefg"), 6));
    EXPECT_EQ("abc", Text::FieldToUtf8(field, 8));  // left as it was
    // A field without a terminator is read up to its capacity.
    std::fill(std::begin(field), std::end(field), u'q');
    EXPECT_EQ(std::string(8, 'q'), Text::FieldToUtf8(field, 8));
}
