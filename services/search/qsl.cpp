// The query language of programs: JSON objects.
#include <array>

#include "services/search/index.h"
#include "services/search/query.h"

namespace search {
namespace {

constexpr int kMaxDepth = 32;
constexpr int kMaxConditions = 1024;

[[noreturn]] void Bad(const std::string& message) {
  throw Error(ErrorCode::kBadQuery, "qsl: " + message);
}

class QslReader {
 public:
  explicit QslReader(const Schema& schema) : conditions_(schema) {}

  Node Read(const Json::Value& query, int depth) {
    if (depth > kMaxDepth || ++count_ > kMaxConditions) {
      Bad("too many conditions, or nested too deep");
    }
    if (!query.isObject() || query.size() != 1) {
      Bad("a condition must be an object with one member");
    }
    const std::string kind = query.getMemberNames().front();
    const Json::Value& body = query[kind];
    if (kind == "match_all") {
      return Node::All();
    }
    if (!body.isObject()) {
      Bad("\"" + kind + "\" must be an object");
    }
    if (kind == "bool") {
      return ReadBool(body, depth);
    }
    if (body.size() != 1) {
      Bad("\"" + kind + "\" must have one field");
    }
    const std::string field = body.getMemberNames().front();
    return ReadLeaf(kind, field, body[field]);
  }

 private:
  static const std::string& String(const std::string& kind, const Json::Value& value, std::string& text) {
    if (!value.isString()) {
      Bad("the value of \"" + kind + "\" must be a string");
    }
    return text = value.asString();
  }

  Node ReadLeaf(const std::string& kind, const std::string& field, const Json::Value& value) {
    std::string text;
    if (kind == "term") {
      return conditions_.Term(field, value);
    }
    if (kind == "prefix") {
      return conditions_.Prefix(field, String(kind, value, text));
    }
    if (kind == "match") {
      return conditions_.AllWords(field, String(kind, value, text));
    }
    if (kind == "phrase") {
      return conditions_.Words(field, String(kind, value, text), WordMatch::kExact, false);
    }
    if (kind == "range") {
      return ReadRange(field, value);
    }
    Bad("\"" + kind + "\" is no kind of condition");
  }

  Node ReadRange(const std::string& field, const Json::Value& bounds) {
    static const std::array<std::pair<std::string, std::string>, 4> kOperations = {
        {{"gt", ">"}, {"gte", ">="}, {"lt", "<"}, {"lte", "<="}}};
    if (!bounds.isObject() || bounds.empty()) {
      Bad("\"range\" needs an object of bounds");
    }
    std::vector<Node> nodes;
    for (const auto& [name, operation] : kOperations) {
      if (bounds.isMember(name)) {
        nodes.push_back(conditions_.Compare(field, operation, bounds[name]));
      }
    }
    if (nodes.size() != bounds.size()) {
      Bad("a bound of \"range\" is none of gt, gte, lt, lte");
    }
    return Node::And(std::move(nodes));
  }

  std::vector<Node> ReadList(const Json::Value& list, int depth) {
    std::vector<Node> nodes;
    if (list.isObject()) {
      nodes.push_back(Read(list, depth + 1));
    } else if (list.isArray()) {
      for (const Json::Value& item : list) {
        nodes.push_back(Read(item, depth + 1));
      }
    } else {
      Bad("a member of \"bool\" must be a condition or a list of them");
    }
    return nodes;
  }

  Node ReadBool(const Json::Value& body, int depth) {
    std::vector<Node> all;
    bool required = false;
    for (const std::string& name : body.getMemberNames()) {
      if (name != "must" && name != "filter" && name != "must_not" && name != "should") {
        Bad("\"bool\" has no member \"" + name + "\"");
      }
      required = required || name == "must" || name == "filter";
    }
    for (const char* name : {"must", "filter"}) {
      for (Node& node : body.isMember(name) ? ReadList(body[name], depth) : std::vector<Node>()) {
        all.push_back(std::move(node));
      }
    }
    for (Node& node : body.isMember("must_not") ? ReadList(body["must_not"], depth) : std::vector<Node>()) {
      all.push_back(Node::Not(std::move(node)));
    }
    std::vector<Node> some = body.isMember("should") ? ReadList(body["should"], depth) : std::vector<Node>();
    // Beside conditions that must hold, the others are wishes: they would only order the hits, and these have an order.
    if (!some.empty() && !required) {
      all.push_back(Node::Or(std::move(some)));
    }
    return Node::And(std::move(all));
  }

  Conditions conditions_;
  int count_ = 0;
};

}  // namespace

Node ParseQsl(const Json::Value& query, const Schema& schema) {
  if (!query.isObject() || !query.isMember("qsl")) {
    Bad("a query must be an object with the member \"qsl\"");
  }
  return QslReader(schema).Read(query["qsl"], 0);
}

}  // namespace search
