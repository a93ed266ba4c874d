// Reading one inspection run from the library's log: which test ran, what it
// returned, and every node its checks failed with the value and the limit.
#include <charconv>
#include <cstdio>
#include <string>

#include "tools/inspect.h"

namespace tool {

namespace {

bool starts_with(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The integer that follows prefix at the start of text ("ITO test failed 8").
std::optional<int> code_after(std::string_view text, std::string_view prefix) {
  if (!starts_with(text, prefix)) {
    return std::nullopt;
  }
  const std::string_view rest = text.substr(prefix.size());
  int value = 0;
  const auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
  if (ec != std::errc() || end == rest.data()) {
    return std::nullopt;
  }
  return value;
}

// Reads "<int><sep>" at pos and moves pos past sep.
bool read_int(std::string_view text, size_t &pos, std::string_view sep, int &out) {
  while (pos < text.size() && text[pos] == ' ') {
    ++pos;
  }
  const auto [end, ec] = std::from_chars(text.data() + pos, text.data() + text.size(), out);
  if (ec != std::errc()) {
    return false;
  }
  pos = static_cast<size_t>(end - text.data());
  if (text.substr(pos, sep.size()) != sep) {
    return false;
  }
  pos += sep.size();
  return true;
}

// The five compensation checks of the CX test, as their verdicts name them.
struct cx_check {
  std::string_view name;
  node_kind kind;
};
constexpr cx_check kCxChecks[] = {
    {"Mutual Lowpower Total CX", node_kind::mutual},
    {"Self Force Detect Total IX", node_kind::force_channel},
    {"Self Sense Detect Total IX", node_kind::sense_channel},
    {"Self Force Total IX", node_kind::force_channel},
    {"Self Sense Total IX", node_kind::sense_channel},
};

bool is_setup_error(std::string_view text) {
  return text == "Error while system resetting" || text == "Error reading chip info" ||
         text == "Error clearing fifo";
}

bool is_test_error(std::string_view text) {
  return starts_with(text, "Error") || starts_with(text, "Couldnt find the label");
}

} // namespace

std::optional<failing_node> parse_node_message(std::string_view text) {
  failing_node node;
  size_t pos = text.find(" node[");
  const bool min_max = pos != std::string_view::npos;
  if (min_max) {
    pos += 6;
  } else if ((pos = text.find("Node[")) != std::string_view::npos) {
    pos += 5;
  } else {
    return std::nullopt;
  }
  int row = 0;
  int col = 0;
  if (!read_int(text, pos, ",", row) || !read_int(text, pos, "] = ", col) ||
      !read_int(text, pos, min_max ? ", Exceeding the limit [" : " exceed limit > ", node.value)) {
    return std::nullopt;
  }
  if (min_max) {
    int lo = 0;
    if (!read_int(text, pos, ",", lo) || !read_int(text, pos, "]", node.maximum)) {
      return std::nullopt;
    }
    node.minimum = lo;
  } else {
    const auto [end, ec] =
        std::from_chars(text.data() + pos, text.data() + text.size(), node.maximum);
    if (ec != std::errc()) {
      return std::nullopt;
    }
  }
  node.force = row;
  node.sense = col;
  return node;
}

void run_log_reader::cx_check_verdict(std::string_view name) {
  for (const cx_check &check : kCxChecks) {
    if (check.name != name) {
      continue;
    }
    for (failing_node &node : pending_) {
      node.check = std::string(check.name) + " change";
      node.kind = check.kind;
      // A self limit is one row or one column of channels: the channel is
      // whichever of the two coordinates is not 0.
      if (check.kind != node_kind::mutual) {
        const int channel = node.force + node.sense;
        node.force = check.kind == node_kind::force_channel ? channel : -1;
        node.sense = check.kind == node_kind::sense_channel ? channel : -1;
      }
      result_.cx.nodes.push_back(node);
    }
  }
  pending_.clear();
}

void run_log_reader::message(std::string_view text) {
  if (text == "Production test starting") {
    result_.ran = true;
    stage_ = stage::sram;
    return;
  }
  if (stage_ == stage::before) {
    return;
  }
  if (stage_ == stage::sram || stage_ == stage::setup) {
    if (is_setup_error(text)) {
      result_.setup_error = std::string(text);
    }
  }
  if (const auto code = code_after(text, "SRAM Test failed ")) {
    result_.sram = {verdict::failed, *code, {}, 0, result_.sram.detail};
    stage_ = stage::after;
    return;
  }
  if (text == "SRAM test passed") {
    result_.sram.result = verdict::passed;
    stage_ = stage::setup;
    return;
  }
  if (text == "ITO Check Command..." && stage_ == stage::setup) {
    stage_ = stage::ito;
  }
  test_outcome *current = stage_ == stage::sram    ? &result_.sram
                          : stage_ == stage::ito   ? &result_.ito
                          : stage_ == stage::noise ? &result_.noise
                          : stage_ == stage::cx    ? &result_.cx
                                                   : nullptr;
  if (stage_ == stage::setup && starts_with(text, "Couldnt find the label MS_RAW_ITO")) {
    current = &result_.ito; // the ITO test's labels are looked up before its first message
  }
  if (current != nullptr && is_test_error(text)) {
    current->detail = std::string(text);
  }

  if (auto node = parse_node_message(text)) {
    if (stage_ == stage::ito) {
      node->check = "ITO raw min/max";
      result_.ito.nodes.push_back(*node);
    } else if (stage_ == stage::noise) {
      node->check = "noise delta";
      result_.noise.nodes.push_back(*node);
    } else if (stage_ == stage::cx) {
      pending_.push_back(*node);
    }
    return;
  }

  if (text == "Retry ITO test") {
    result_.ito.nodes.clear();
    ++result_.ito.retries;
  } else if (const auto ito = code_after(text, "ITO test failed ")) {
    result_.ito.result = verdict::failed;
    result_.ito.code = *ito;
    stage_ = stage::noise;
  } else if (text == "ITO test passed") {
    result_.ito.result = verdict::passed;
    stage_ = stage::noise;
  } else if (text == "Retry noise test") {
    result_.noise.nodes.clear();
    ++result_.noise.retries;
  } else if (const auto noise = code_after(text, "Noise data test failed ")) {
    result_.noise.result = verdict::failed;
    result_.noise.code = *noise;
    stage_ = stage::cx;
  } else if (text == "Noise test passed") {
    result_.noise.result = verdict::passed;
    stage_ = stage::cx;
  } else if (text == "Retry CX test") {
    result_.cx.nodes.clear();
    pending_.clear();
    ++result_.cx.retries;
  } else if (const auto cx = code_after(text, "CX data test failed ")) {
    result_.cx.result = verdict::failed;
    result_.cx.code = *cx;
    stage_ = stage::after;
  } else if (text == "CX data test passed") {
    result_.cx.result = verdict::passed;
    stage_ = stage::after;
  } else if (stage_ == stage::cx) {
    const size_t fail = text.rfind(" FAIL");
    const size_t ok = text.rfind(" OK!!");
    if (fail != std::string_view::npos && fail + 5 == text.size()) {
      cx_check_verdict(text.substr(0, fail));
    } else if (ok != std::string_view::npos && ok + 5 == text.size()) {
      cx_check_verdict(text.substr(0, ok));
    }
  }
}

} // namespace tool
