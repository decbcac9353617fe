// What queries answer to null pointers and to numbers that nothing has: none may end the process.
#include "tests/query/questions.h"
#include "tests/query/topology.h"

class Arguments : public Topology {};

// Nothing is written through the other pointers either.
TEST_F(Arguments, ThatAreNullAreRefused) {
    EXPECT_GT(Question::names().size(), 100U);
    for (const std::string &name : Question::names()) {
        const Question question(name);
        for (size_t i = 0; i < question.passes().size(); ++i) {
            if (is_number(question.passes()[i])) continue;
            const std::string answer = question.answer(i, /*word=*/0);
            EXPECT_TRUE(answer.starts_with("-1") && answer.find_first_not_of("-1|~") == std::string::npos)
                << name << " argument " << i << ": " << answer;
        }
    }
    const int32_t ap = 2;
    const PDev__VslPortInfo port = P_DEV__VSL_PORT_INFO__INIT;
    EXPECT_EQ(each(ndm_vsl_cmp_ap(nullptr, &ap), ndm_vsl_cmp_ap(&port, nullptr), ndm_vsl_cmp_ap(&port, &ap)),
              "-1 -1 -1;");
}

// A length is believed: it is never longer than its buffer here.
TEST_F(Arguments, MayBeAnyNumber) {
    for (const std::string &name : Question::names()) {
        const Question question(name);
        for (size_t i = 0; i < question.passes().size(); ++i) {
            if (!is_number(question.passes()[i])) continue;
            const bool length = question.parameter(i) == "len";
            for (const int64_t number : {int64_t{INT32_MIN}, int64_t{-1}, int64_t{0}, int64_t{INT32_MAX}}) {
                if (length && number > 0) continue;
                const std::string answer = question.answer(i, static_cast<uintptr_t>(number));
                EXPECT_TRUE(!length || answer.ends_with("|~")) << name << ' ' << number << ": " << answer;
            }
        }
    }
}
