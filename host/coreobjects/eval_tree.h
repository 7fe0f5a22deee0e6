#pragma once

#include <string_view>
#include <vector>

#include <zorn/types/values.h>

// Expressions of properties.
//
//   expr    := or ; or := and ( "||" and )* ; and := cmp ( "&&" cmp )*
//   cmp     := sum ( ("==" | "!=" | "<" | "<=" | ">" | ">=") sum )?
//   sum     := term ( ("+" | "-") term )* ; term := unary ( ("*" | "/") unary )*
//   unary   := ("!" | "-") unary | primary
//   primary := int | float | string | "true" | "false" | ref | call | "(" expr ")"
//   ref     := ("$" | "%") name ( "." name )* ( "[" expr "]" )?      an index only behind "$"
//   call    := ("switch" | "if" | "min" | "max") "(" expr ("," expr)* ")"
//   string  := '"' ... '"' | "'" ... "'" ; name := [A-Za-z_][A-Za-z0-9_]*
namespace Harvane::RT::Core {

enum class EvalKind {
    Literal,
    Value,     // $name: the property's value
    Property,  // %name: the property itself
    Or,
    And,
    Compare,
    Sum,
    Product,
    Not,
    Negate,
    Switch,  // switch(value, key, result, key, result, ..., otherwise)
    If,
    Min,
    Max,
};

enum class EvalOperator { Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual, Plus, Minus, Times, Over };

// Chains of one precedence are one node with many operands, so that the depth of a tree is that of its parentheses.
struct EvalNode {
    EvalKind kind = EvalKind::Literal;
    BasePtr literal;
    StringPtr name;                       // of the property, with its parents: "a.b"
    std::vector<EvalNode> operands;       // for Value: the index, if there is one
    std::vector<EvalOperator> operators;  // between the operands
};

// ParseFailedException with the place and the reason.
EvalNode parseEval(std::string_view expression);

}  // namespace Harvane::RT::Core
