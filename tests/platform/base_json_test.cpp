// JSON when memory is short: whatever allocation fails, parsing and writing give the right result or none,
// and leave nothing behind.

#include <orvutils/json.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

// ---- memory of the JSON library's, counted and made to fail

enum class Failing { never, once, from_then_on, larger_than };

Failing g_failing = Failing::never;
std::size_t g_limit = 0; ///< which request fails, from 1; or the size above which all do
std::size_t g_requests = 0;
long g_blocks = 0; ///< in use
std::size_t g_largest = 0;

void* allocate(std::size_t size)
{
    ++g_requests;
    g_largest = std::max(g_largest, size);
    const bool fails = (g_failing == Failing::once && g_requests == g_limit) ||
                       (g_failing == Failing::from_then_on && g_requests >= g_limit) ||
                       (g_failing == Failing::larger_than && size > g_limit);
    if (fails)
        return nullptr;
    ++g_blocks;
    return std::malloc(size);
}

void release(void* block)
{
    if (block)
        --g_blocks;
    std::free(block);
}

class Json : public testing::Test {
protected:
    void SetUp() override
    {
        json_object_seed(1);
        json_set_alloc_funcs(allocate, release);
        g_blocks = 0;
        fail(Failing::never, 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(g_blocks, 0) << "blocks of memory are left";
        json_set_alloc_funcs(std::malloc, std::free);
    }

    static void fail(Failing failing, std::size_t limit)
    {
        g_failing = failing;
        g_limit = limit;
        g_requests = 0;
        g_largest = 0;
    }

    static std::string text_of(const orv::JsonPtr& value)
    {
        const orv::TextPtr text = orv::dump(value.get());
        return text ? text.get() : "none";
    }

    /// Parses with every request for memory failing in turn: the value or none, and whole in either case.
    static void parse_failing(const std::string& text, Failing failing)
    {
        fail(Failing::never, 0);
        const std::string whole = text_of(orv::parse_json(text));
        const std::size_t count = g_requests;
        for (std::size_t n = 1; n <= count + 1; ++n) {
            fail(failing, n);
            const orv::JsonPtr value = orv::parse_json(text);
            fail(Failing::never, 0);
            if (value)
                EXPECT_TRUE(text_of(value) == whole) << n << " of " << count;
            else
                EXPECT_LE(n, count);
        }
    }
};

std::string object(std::size_t length)
{
    return R"({"type": "command", "name": ")" + std::string(length, 'n') + R"(", ")" +
           std::string(length, 'k') + R"(": [1, -2.5, true, null, {"a": "b"}, ")" + std::string(length, 'e') +
           R"("]})";
}

TEST_F(Json, IsParsedAndWrittenAsTheLibraryWouldDoIt)
{
    EXPECT_EQ(text_of(orv::parse_json(R"( {"a":[1,2.5,"\u00e9",null,true,{}]} )")),
              R"({"a": [1, 2.5, "é", null, true, {}]})");
    for (const char* none :
         {"", "5", "null", "\"text\"", "{", "[1,]", "{} x", "{\"a\": \"\\u0000\"}", "[\"\xff\"]"})
        EXPECT_EQ(orv::parse_json(none), nullptr) << none;
    EXPECT_EQ(orv::parse_json({"[]\0", 3}), nullptr);
    EXPECT_EQ(orv::dump(nullptr), nullptr);
    const orv::JsonPtr number(json_integer(5));
    EXPECT_EQ(orv::dump(number.get()), nullptr);
    EXPECT_STREQ(orv::dump(number.get(), JSON_ENCODE_ANY).get(), "5");
}

TEST_F(Json, OfAnyStringLengthSurvivesEveryLackOfMemoryWhileItIsParsed)
{
    for (std::size_t length = 0; length <= 70; ++length) {
        SCOPED_TRACE(length);
        parse_failing(object(length), Failing::once);
        parse_failing(object(length), Failing::from_then_on);
    }
    for (const std::size_t length : {4000U, 5000U, 20000U, 300000U})
        for (const Failing failing : {Failing::once, Failing::from_then_on})
            parse_failing(object(length), failing);
}

TEST_F(Json, ThatNeedsMoreThanThereIsIsNotParsed)
{
    const std::string text = object(100000);
    for (const std::size_t size : {0U, 100U, 5000U, 9000U, 70000U, 150000U}) {
        fail(Failing::larger_than, size);
        EXPECT_EQ(orv::parse_json(text), nullptr) << size;
    }
    fail(Failing::larger_than, 10000000);
    EXPECT_NE(orv::parse_json(text), nullptr);
}

TEST_F(Json, OfAnOrdinaryRequestTakesNoMemoryOfTheHeap)
{
    fail(Failing::from_then_on, 1);
    const orv::JsonPtr value = orv::parse_json(R"({"type": "command", "name": "get_services_status"})");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(json_string_value(json_object_get(value.get(), "name")), "get_services_status");
}

TEST_F(Json, OfSeveralTextsAtATimeGoesBackInAnyOrder)
{
    for (int rotation = 0; rotation < 4; ++rotation) {
        std::vector<orv::JsonPtr> values;
        for (std::size_t length = 1; length <= 4; ++length)
            values.push_back(orv::parse_json(object(length * 3000)));
        for (int i = 0; i < 4; ++i) {
            auto& value = values[static_cast<std::size_t>((i * 3 + rotation) % 4)];
            EXPECT_GT(text_of(value).size(), 3000U);
            value.reset();
        }
        EXPECT_EQ(g_blocks, 0);
    }
}

TEST_F(Json, OfManyTextsIsInFewPiecesWhenTheyAreParsedBesideEachOther)
{
    const std::string text = object(20);
    const std::string whole = text_of(orv::parse_json(text));
    std::vector<orv::JsonPtr> values;
    fail(Failing::never, 0);
    for (int i = 0; i < 1000; ++i)
        values.push_back(
            orv::parse_json(text, nullptr, /*beside=*/values.empty() ? nullptr : values.back().get()));
    EXPECT_LT(g_requests, 20U);
    for (std::size_t i = 0; i < values.size(); i += 2)
        values[i].reset();
    EXPECT_EQ(orv::parse_json(R"({"malformed": [1, 2)", nullptr, values[1].get()), nullptr);
    for (std::size_t i = 1; i < values.size(); i += 2) {
        EXPECT_TRUE(text_of(values[i]) == whole) << i;
        values[i].reset();
    }
    EXPECT_EQ(g_blocks, 0);
}

TEST_F(Json, BesideOthersIsOneOrNoneWithoutHarmToThem)
{
    const std::string text = object(9000);
    const std::string whole = text_of(orv::parse_json(text));
    for (std::size_t n = 1; n <= 10; ++n) {
        orv::JsonPtr first = orv::parse_json(text);
        fail(Failing::from_then_on, n);
        bool lacks_memory = false;
        const orv::JsonPtr second = orv::parse_json(text, &lacks_memory, first.get());
        fail(Failing::never, 0);
        EXPECT_EQ(second == nullptr, lacks_memory) << n;
        EXPECT_TRUE(text_of(first) == whole) << n;
        const orv::JsonPtr third = orv::parse_json(text, nullptr, first.get());
        first.reset();
        EXPECT_TRUE(text_of(third) == whole) << n;
        EXPECT_TRUE(!second || text_of(second) == whole) << n;
    }
}

TEST_F(Json, PartsOutliveTheRest)
{
    orv::JsonPtr part;
    {
        const orv::JsonPtr whole = orv::parse_json(R"({"a": {"kept": "yes"}, "b": [1, 2, 3]})");
        part.reset(json_incref(json_object_get(whole.get(), "a")));
    }
    const orv::JsonPtr next = orv::parse_json(R"({"c": "elsewhere"})"); // takes nothing of what is kept
    EXPECT_EQ(text_of(part), R"({"kept": "yes"})");
    EXPECT_EQ(text_of(next), R"({"c": "elsewhere"})");
}

TEST_F(Json, CanBeChangedAfterItWasParsed)
{
    const orv::JsonPtr value = orv::parse_json(R"({"src_ip": "1.2.3.4", "list": []})");
    EXPECT_EQ(json_object_set(value.get(), "ip", json_object_get(value.get(), "src_ip")), 0);
    EXPECT_EQ(json_object_del(value.get(), "src_ip"), 0);
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(json_array_append_new(json_object_get(value.get(), "list"), json_integer(i)), 0);
    EXPECT_EQ(text_of(value).substr(0, 30), R"({"list": [0, 1, 2, 3, 4, 5, 6,)");
}

TEST_F(Json, OfADeepOrWideTextIsGivenBackAtOnce)
{
    std::string wide = "[";
    for (int i = 0; i < 130000; ++i)
        wide += R"({"a":[[]]},)";
    wide += "0]";
    const orv::JsonPtr value = orv::parse_json(wide);
    EXPECT_EQ(json_array_size(value.get()), 130001U);
    EXPECT_LT(g_blocks, 100) << "few and large pieces";
    EXPECT_EQ(orv::parse_json(std::string(100000, '[')), nullptr);
}

/// That all writers give the text that the library gives.
void expect_the_librarys_text(const json_t* value)
{
    const std::unique_ptr<char, void (*)(void*)> wanted(json_dumps(value, JSON_ENCODE_ANY), release);
    const orv::TextPtr text = orv::dump(value, JSON_ENCODE_ANY);
    ASSERT_TRUE(wanted && text);
    EXPECT_STREQ(text.get(), wanted.get());
}

TEST_F(Json, IsWrittenWithTheBytesOfTheLibrary)
{
    for (const char* text :
         {R"([])", R"({})", R"([[], {}, [{}], {"": []}])", R"({"b": 1, "a": {"d": [], "c": null}})",
          R"(["\u0001\u001f\u007f \b\f\n\r\t\"\\/\/", "é€😀\ufffd", ""])",
          R"({"\"key\"\n": "\u001b[0m", "é": true, "\\": false})",
          R"([0, -1, 1234567890123456789, 9223372036854775807, -9223372036854775808])",
          R"([0.1, -0.0, 1.0, 1e300, 1e-7, 123456789.125, 2.2250738585072014e-308])"}) {
        const orv::JsonPtr value = orv::parse_json(text);
        ASSERT_TRUE(value) << text;
        expect_the_librarys_text(value.get());
    }
    for (json_t* scalar :
         {json_null(), json_true(), json_false(), json_integer(7), json_real(0.5), json_string("\x7f")})
        expect_the_librarys_text(orv::JsonPtr(scalar).get());
}

TEST_F(Json, IsWrittenWithTheBytesOfTheLibraryWhateverCharacterAStringHolds)
{
    for (char c = 0; static_cast<unsigned char>(c) < 0x80; ++c) {
        const char text[] = {'a', c, c, 'b'};
        expect_the_librarys_text(orv::JsonPtr(json_stringn(text, sizeof text)).get());
    }
}

TEST_F(Json, IsWrittenAsDeepAsItIsParsed)
{
    for (const char* pair : {"[]", "{}"}) {
        const std::string opening = *pair == '[' ? "[" : R"({"a": )";
        std::string text;
        for (int depth = 1; depth < JSON_PARSER_MAX_DEPTH; ++depth)
            text += opening;
        text += pair;
        text.append(JSON_PARSER_MAX_DEPTH - 1, pair[1]);
        EXPECT_EQ(text_of(orv::parse_json(text)), text);
    }
}

TEST_F(Json, ThatContainsItselfIsNotWritten)
{
    const orv::JsonPtr outer = orv::parse_json(R"([{"a": []}])");
    json_t* inner = json_object_get(json_array_get(outer.get(), 0), "a");
    ASSERT_EQ(json_array_append(inner, outer.get()), 0);
    EXPECT_EQ(text_of(outer), "none");
    EXPECT_EQ(json_array_clear(inner), 0);
}

TEST_F(Json, NeedsNoMemoryOfTheLibraryToBeWritten)
{
    const orv::JsonPtr value = orv::parse_json(R"({"a": [1, "b", {"c": null}]})");
    fail(Failing::from_then_on, 1);
    EXPECT_EQ(text_of(value), R"({"a": [1, "b", {"c": null}]})");
    EXPECT_EQ(g_requests, 0U);
}

TEST_F(Json, IsWrittenWholeOrNotAtAll)
{
    const orv::JsonPtr value = orv::parse_json(object(30));
    const std::string whole = text_of(value);
    for (std::size_t n = 1, failed = 1; failed != 0; ++n) {
        fail(Failing::once, n);
        const orv::TextPtr text = orv::dump(value.get());
        failed = g_requests >= n ? 1 : 0;
        fail(Failing::never, 0);
        if (text) {
            EXPECT_EQ(text.get(), whole);
        }
    }
}

TEST_F(Json, IsWrittenInPiecesUntilTheirTakerHasEnough)
{
    const orv::JsonPtr value = orv::parse_json(R"({"a": 1, "b": 2, "c": 3})");
    struct Taker {
        std::string text;
        std::size_t enough;
    };
    const auto take = [](std::string_view piece, void* user) {
        auto& taker = *static_cast<Taker*>(user);
        taker.text += piece;
        return taker.text.size() < taker.enough;
    };
    Taker all{{}, 1000};
    EXPECT_TRUE(orv::dump_to(value.get(), 0, take, &all));
    EXPECT_EQ(all.text, R"({"a": 1, "b": 2, "c": 3})");
    for (std::size_t enough = 1; enough < all.text.size(); ++enough) {
        Taker some{{}, enough};
        EXPECT_FALSE(orv::dump_to(value.get(), 0, take, &some)) << enough; // also when only a key was refused
        EXPECT_EQ(some.text, all.text.substr(0, some.text.size()));
    }
}

} // namespace
