#include "host/coreobjects/eval_tree.h"

#include <algorithm>
#include <charconv>
#include <string>

#include <zorn/types/exceptions.h>

namespace Harvane::RT::Core {
namespace {

constexpr int maxDepth = 64;  // of parentheses, calls, indices and signs

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isNamePart(char c) {
    return isNameStart(c) || isDigit(c);
}

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    EvalNode parse() {
        EvalNode result = expression();
        if (at_ < text_.size()) {
            fail("unexpected \"" + std::string(1, text_[at_]) + "\"");
        }
        return result;
    }

private:
    [[noreturn]] void fail(const std::string& reason) const {
        throw ParseFailedException("Column %zu of the expression \"%.200s\": %s", at_ + 1, std::string(text_).c_str(),
                                   reason.c_str());
    }

    void skipBlanks() { at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size()); }
    char peek() {
        skipBlanks();
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    bool take(std::string_view token) {
        skipBlanks();
        if (text_.substr(at_, token.size()) != token) {
            return false;
        }
        at_ += token.size();
        return true;
    }
    void require(std::string_view token) {
        if (!take(token)) {
            fail("expected \"" + std::string(token) + "\"");
        }
    }

    // One level of binary operators: `table` lists them, longer ones before their beginnings.
    template <class Operand, size_t N>
    EvalNode chain(EvalKind kind, const std::pair<std::string_view, EvalOperator> (&table)[N], Operand operand,
                   bool repeats) {
        EvalNode first = (this->*operand)();
        EvalNode node;
        node.kind = kind;
        for (bool more = true; more;) {
            more = false;
            for (const auto& [token, operation] : table) {
                if (!take(token)) {
                    continue;
                }
                if (node.operands.empty()) {
                    // NOLINTNEXTLINE(bugprone-use-after-move): empty only until then
                    node.operands.push_back(std::move(first));
                }
                node.operators.push_back(operation);
                node.operands.push_back((this->*operand)());
                more = repeats;
                break;
            }
        }
        return node.operands.empty() ? std::move(first) : std::move(node);
    }

    EvalNode expression() {
        const Level level(*this);
        static constexpr std::pair<std::string_view, EvalOperator> table[] = {{"||", EvalOperator::Plus}};
        return chain(EvalKind::Or, table, &Parser::conjunction, true);
    }
    EvalNode conjunction() {
        static constexpr std::pair<std::string_view, EvalOperator> table[] = {{"&&", EvalOperator::Times}};
        return chain(EvalKind::And, table, &Parser::comparison, true);
    }
    EvalNode comparison() {
        static constexpr std::pair<std::string_view, EvalOperator> table[] = {
            {"==", EvalOperator::Equal}, {"!=", EvalOperator::NotEqual},     {"<=", EvalOperator::LessEqual},
            {"<", EvalOperator::Less},   {">=", EvalOperator::GreaterEqual}, {">", EvalOperator::Greater},
        };
        return chain(EvalKind::Compare, table, &Parser::sum, false);
    }
    EvalNode sum() {
        static constexpr std::pair<std::string_view, EvalOperator> table[] = {{"+", EvalOperator::Plus},
                                                                              {"-", EvalOperator::Minus}};
        return chain(EvalKind::Sum, table, &Parser::term, true);
    }
    EvalNode term() {
        static constexpr std::pair<std::string_view, EvalOperator> table[] = {{"*", EvalOperator::Times},
                                                                              {"/", EvalOperator::Over}};
        return chain(EvalKind::Product, table, &Parser::unary, true);
    }

    EvalNode unary() {
        const char sign = peek();
        if (sign != '!' && sign != '-') {
            return primary();
        }
        const Level level(*this);
        ++at_;
        EvalNode node;
        node.kind = sign == '!' ? EvalKind::Not : EvalKind::Negate;
        node.operands.push_back(unary());
        return node;
    }

    EvalNode primary() {
        const char next = peek();
        if (isDigit(next)) {
            return number();
        }
        if (next == '"' || next == '\'') {
            return string(next);
        }
        if (next == '$' || next == '%') {
            return reference(next);
        }
        if (isNameStart(next)) {
            return word();
        }
        if (next == '(') {
            ++at_;
            EvalNode node = expression();
            require(")");
            return node;
        }
        if (next == '\0') {
            fail("a value is missing at the end");
        }
        fail("expected a value instead of \"" + std::string(1, next) + "\"");
    }

    static EvalNode literal(BasePtr value) {
        EvalNode node;
        node.literal = std::move(value);
        return node;
    }

    EvalNode number() {
        const size_t start = at_;
        auto digits = [this] {
            const size_t from = at_;
            while (at_ < text_.size() && isDigit(text_[at_])) {
                ++at_;
            }
            return at_ > from;
        };
        digits();
        bool isFloat = false;
        bool complete = true;
        if (at_ < text_.size() && text_[at_] == '.') {
            isFloat = true;
            ++at_;
            complete = digits();
        }
        if (complete && at_ < text_.size() && (text_[at_] == 'e' || text_[at_] == 'E')) {
            isFloat = true;
            ++at_;
            if (at_ < text_.size() && (text_[at_] == '+' || text_[at_] == '-')) {
                ++at_;
            }
            complete = digits();
        }
        const std::string_view text = text_.substr(start, at_ - start);
        double number = 0.0;
        int64_t integer = 0;
        const auto result = isFloat ? std::from_chars(text.data(), text.data() + text.size(), number)
                                    : std::from_chars(text.data(), text.data() + text.size(), integer);
        if (!complete || result.ec != std::errc()) {
            at_ = start;
            fail(complete ? "the number is too large" : "the number is not complete");
        }
        return literal(isFloat ? toValue(number) : toValue(integer));
    }

    EvalNode string(char quote) {
        const size_t end = text_.find(quote, at_ + 1);
        if (end == std::string_view::npos) {
            fail("the text is not closed");
        }
        EvalNode node = literal(toValue(text_.substr(at_ + 1, end - at_ - 1)));
        at_ = end + 1;
        return node;
    }

    std::string_view name() {
        const size_t start = at_;
        if (at_ >= text_.size() || !isNameStart(text_[at_])) {
            fail("expected a name");
        }
        while (at_ < text_.size() && isNamePart(text_[at_])) {
            ++at_;
        }
        return text_.substr(start, at_ - start);
    }

    EvalNode reference(char kind) {
        ++at_;
        EvalNode node;
        node.kind = kind == '$' ? EvalKind::Value : EvalKind::Property;
        std::string path(name());
        while (at_ < text_.size() && text_[at_] == '.') {
            ++at_;
            path.append(".").append(name());
        }
        node.name = StringPtr(path);
        if (peek() == '[') {
            if (kind == '%') {
                fail("an index is possible behind \"$\" only");
            }
            ++at_;
            node.operands.push_back(expression());
            require("]");
        }
        return node;
    }

    EvalNode word() {
        const size_t start = at_;
        const std::string_view text = name();
        if (text == "true" || text == "false") {
            return literal(toValue(text == "true"));
        }
        EvalNode node;
        if (text == "switch") {
            node.kind = EvalKind::Switch;
        } else if (text == "if") {
            node.kind = EvalKind::If;
        } else if (text == "min") {
            node.kind = EvalKind::Min;
        } else if (text == "max") {
            node.kind = EvalKind::Max;
        } else {
            at_ = start;
            fail("unknown word \"" + std::string(text) + "\"; a property needs a \"$\" or \"%\"");
        }
        require("(");
        do {
            node.operands.push_back(expression());
        } while (take(","));
        require(")");
        if (node.kind == EvalKind::If && node.operands.size() != 3) {
            at_ = start;
            fail("\"if\" takes a condition and two values");
        }
        return node;
    }

    class Level {
    public:
        explicit Level(Parser& parser) : parser_(parser) {
            if (++parser_.depth_ > maxDepth) {
                parser_.fail("the expression is nested too deeply");
            }
        }
        ~Level() { --parser_.depth_; }
        Level(const Level&) = delete;
        Level& operator=(const Level&) = delete;

    private:
        Parser& parser_;
    };

    std::string_view text_;
    size_t at_ = 0;
    int depth_ = 0;
};

}  // namespace

EvalNode parseEval(std::string_view expression) {
    return Parser(expression).parse();
}

}  // namespace Harvane::RT::Core
