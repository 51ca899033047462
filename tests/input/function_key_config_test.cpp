#include "input/function_key_config.h"

#include "common/settings_store.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

using namespace plinkora;

namespace {
class FunctionKeyConfigTest : public ::testing::Test
{
protected:
    QTemporaryDir dir;
    QSettings qsettings{dir.filePath("plinkora.conf"), QSettings::IniFormat};
    SettingsStore settings{qsettings};
    const FunctionKeyConfig& config = kFunctionKeyConfig;
};
} // namespace

TEST_F(FunctionKeyConfigTest, KeysAreNamedPerFunctionKey)
{
    EXPECT_STREQ(config.f1CCKey, "PLK_F1_CC");
    EXPECT_STREQ(config.f2CCKey, "PLK_F2_CC");
    EXPECT_STREQ(config.f3CCKey, "PLK_F3_CC");
    EXPECT_STREQ(config.f4CCKey, "PLK_F4_CC");
}

TEST_F(FunctionKeyConfigTest, EmptyStoreGivesDefaults115To118)
{
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(config.controllerNumber(settings, i), 115 + i);
}

TEST_F(FunctionKeyConfigTest, StoredSevenUnderF2IsUsedAndOthersKeepDefaults)
{
    settings.setInteger(7, "PLK_F2_CC");
    EXPECT_EQ(config.controllerNumber(settings, 0), 115);
    EXPECT_EQ(config.controllerNumber(settings, 1), 7);
    EXPECT_EQ(config.controllerNumber(settings, 2), 117);
    EXPECT_EQ(config.controllerNumber(settings, 3), 118);
}

TEST_F(FunctionKeyConfigTest, EnteringZeroStoresZeroWhichReadsAsTheDefault)
{
    EXPECT_EQ(config.storeTypedText(settings, 0, "0"), std::nullopt);
    EXPECT_EQ(settings.integerForKey("PLK_F1_CC"), 0);
    EXPECT_TRUE(qsettings.contains("PLK_F1_CC"));
    EXPECT_EQ(config.controllerNumber(settings, 0), 115);
}

TEST_F(FunctionKeyConfigTest, Entering127StoresIt)
{
    EXPECT_EQ(config.storeTypedText(settings, 0, "127"), std::nullopt);
    EXPECT_EQ(settings.integerForKey("PLK_F1_CC"), 127);
}

TEST_F(FunctionKeyConfigTest, InvalidEntriesStoreNothingAndGiveTheCurrentValueBack)
{
    settings.setInteger(12, "PLK_F3_CC");
    for (const char* text : {"128", "300", "-5", "abc", ""}) {
        EXPECT_EQ(config.storeTypedText(settings, 2, text), QString("12")) << text;
        EXPECT_EQ(config.storeTypedText(settings, 0, text), QString("115")) << text;
    }
    EXPECT_EQ(settings.integerForKey("PLK_F3_CC"), 12);
    EXPECT_FALSE(qsettings.contains("PLK_F1_CC"));
}

TEST_F(FunctionKeyConfigTest, PlusTwelveStoresTwelveAndMinusZeroStoresZero)
{
    EXPECT_EQ(config.storeTypedText(settings, 1, "+12"), std::nullopt);
    EXPECT_EQ(settings.integerForKey("PLK_F2_CC"), 12);
    EXPECT_EQ(config.storeTypedText(settings, 1, "-0"), std::nullopt);
    EXPECT_EQ(settings.integerForKey("PLK_F2_CC"), 0);
}

TEST_F(FunctionKeyConfigTest, StoredTwoHundredIsReturnedForMaskingBySending)
{
    qsettings.setValue("PLK_F4_CC", 200);
    EXPECT_EQ(config.controllerNumber(settings, 3), 200);
}

TEST_F(FunctionKeyConfigTest, StoredMinusOneIsFatalNamingKeyValueAndFile)
{
    qsettings.setValue("PLK_F1_CC", -1);
    qsettings.sync();
    EXPECT_DEATH(config.controllerNumber(settings, 0), "-1 under \"PLK_F1_CC\" in .*plinkora.conf");
}

TEST_F(FunctionKeyConfigTest, Stored300IsFatal)
{
    qsettings.setValue("PLK_F2_CC", 300);
    qsettings.sync();
    EXPECT_DEATH(config.controllerNumber(settings, 1), "300 under \"PLK_F2_CC\"");
}

TEST(FunctionKeyTextParser, AcceptsDigitsWithOneOptionalSign)
{
    EXPECT_EQ(FunctionKeyConfig::parseUInt8("0"), 0);
    EXPECT_EQ(FunctionKeyConfig::parseUInt8("255"), 255);
    EXPECT_EQ(FunctionKeyConfig::parseUInt8("+7"), 7);
    EXPECT_EQ(FunctionKeyConfig::parseUInt8("007"), 7);
    EXPECT_EQ(FunctionKeyConfig::parseUInt8("0127"), 127);
    EXPECT_EQ(FunctionKeyConfig::parseUInt8("-0"), 0);
    EXPECT_EQ(FunctionKeyConfig::parseUInt8("-000"), 0);
}

TEST(FunctionKeyTextParser, RejectsEverythingElse)
{
    for (const char* text :
         {"", "+", "-", "-5", "256", "300", " 64", "64 ", "6 4", "abc", "1e2", "++1", "0x10", "99999999999999999999"})
        EXPECT_EQ(FunctionKeyConfig::parseUInt8(text), std::nullopt) << '"' << text << '"';
}

namespace {
/// `text` as an extended regular expression that matches exactly it.
std::string literally(const QString& text)
{
    std::string pattern;
    for (const char c : text.toStdString()) {
        if (std::strchr(".[]{}()\\*+?|^$", c) != nullptr)
            pattern += '\\';
        pattern += c;
    }
    return pattern;
}
} // namespace

TEST(FunctionKeyConfigDeath, AHandEditedFileOutsideZeroTo255StopsWithTheLineNamingKeyValueAndFile)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("Plinkora.conf");
    const std::array<const char*, 4> keys{"PLK_F1_CC", "PLK_F2_CC", "PLK_F3_CC", "PLK_F4_CC"};
    const std::array<const char*, 4> values{"-1", "256", " 1000000 ", "-9223372036854775808"};
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("[General]\n");
        for (std::size_t i = 0; i < keys.size(); ++i)
            file.write(QByteArray(keys[i]) + '=' + values[i] + '\n');
    }
    QSettings qsettings(path, QSettings::IniFormat);
    SettingsStore settings(qsettings);
    for (int index = 0; index < 4; ++index) {
        const QString value = QString::fromLatin1(values[static_cast<std::size_t>(index)]).trimmed();
        const QString line =
            QStringLiteral("Fatal error: the stored controller number %1 under \"%2\" in %3 is outside 0 to 255")
                .arg(value, QString::fromLatin1(keys[static_cast<std::size_t>(index)]), path);
        EXPECT_DEATH(kFunctionKeyConfig.controllerNumber(settings, index), "(^|\n)" + literally(line) + "\n")
            << line.toStdString();
    }
}
