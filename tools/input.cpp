#include "input.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "pki/pki.h"

namespace kvtool {

bool ReadAll(const std::string& path, std::string& data, std::string& error) {
  if (path == "-") {
    std::ostringstream s;
    s << std::cin.rdbuf();
    data = s.str();
    if (std::cin.bad()) {
      error = "cannot read standard input";
      return false;
    }
    return true;
  }
  std::ifstream f(path, std::ios::binary);
  if (!f) {
    error = std::string("cannot open: ") + std::strerror(errno);
    return false;
  }
  data.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  if (f.bad()) {
    error = "read error";
    return false;
  }
  return true;
}

bool WriteAll(const std::string& path, const std::string& data, std::string& error) {
  if (path == "-") {
    std::cout.write(data.data(), static_cast<std::streamsize>(data.size()));
    std::cout.flush();
    if (!std::cout) {
      error = "cannot write standard output";
      return false;
    }
    return true;
  }
  std::string tmp = path + ".tmp-" + std::to_string(::getpid());
  {
    std::ofstream f(tmp, std::ios::binary | std::ios::trunc);
    if (!f) {
      error = std::string("cannot create: ") + std::strerror(errno);
      return false;
    }
    f.write(data.data(), static_cast<std::streamsize>(data.size()));
    f.flush();
    if (!f) {
      error = "write error";
      f.close();
      std::remove(tmp.c_str());
      return false;
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    error = std::string("cannot replace: ") + std::strerror(errno);
    std::remove(tmp.c_str());
    return false;
  }
  return true;
}

std::string Base64Encode(const std::string& bytes, bool lineBreaks) {
  if (bytes.empty()) return std::string();
  KV_Base64 codec;
  MiByte in(bytes.data(), static_cast<unsigned>(bytes.size()));
  MiByte out;
  if (codec.Encode(in, out, lineBreaks) != 0) return std::string();
  return std::string(out.GetChars() ? out.GetChars() : "", out.GetLength());
}

bool Base64Decode(const std::string& text, std::string& bytes) {
  bytes.clear();
  if (text.empty()) return true;
  KV_Base64 codec;
  MiByte in(text.data(), static_cast<unsigned>(text.size()));
  MiByte out;
  if (codec.Decode(in, out) != 0) return false;
  // An incomplete final group is reported as no output at all.
  bool anyData = text.find_first_not_of(" \t\r\n") != std::string::npos;
  if (out.Empty() && anyData) return false;
  bytes.assign(out.GetChars() ? out.GetChars() : "", out.GetLength());
  return true;
}

namespace {

bool IsBase64Text(const std::string& data) {
  bool any = false;
  for (unsigned char c : data) {
    if (std::isalnum(c) || c == '+' || c == '/' || c == '=') {
      any = true;
    } else if (c != ' ' && c != '\t' && c != '\r' && c != '\n') {
      return false;
    }
  }
  return any;
}

// PEM blocks: "-----BEGIN LABEL-----", Base64 lines, "-----END LABEL-----".
// Header lines ("Proc-Type: ...") mark an encrypted block, which we cannot read.
bool ParsePem(const std::string& data, std::vector<Blob>& blobs, std::string& error) {
  static const std::string kBegin = "-----BEGIN ";
  size_t pos = 0;
  while ((pos = data.find(kBegin, pos)) != std::string::npos) {
    size_t labelStart = pos + kBegin.size();
    size_t labelEnd = data.find("-----", labelStart);
    if (labelEnd == std::string::npos) break;
    std::string label = data.substr(labelStart, labelEnd - labelStart);
    std::string end = "-----END " + label + "-----";
    size_t bodyStart = labelEnd + 5;
    size_t bodyEnd = data.find(end, bodyStart);
    if (bodyEnd == std::string::npos) {
      error = "PEM block \"" + label + "\" has no END line";
      return false;
    }
    std::string body = data.substr(bodyStart, bodyEnd - bodyStart);
    if (body.find(':') != std::string::npos) {
      error = "PEM block \"" + label + "\" is encrypted or carries headers; not supported";
      return false;
    }
    Blob blob;
    blob.label = label;
    if (!Base64Decode(body, blob.der) || blob.der.empty()) {
      error = "PEM block \"" + label + "\" holds no valid Base64";
      return false;
    }
    blobs.push_back(std::move(blob));
    pos = bodyEnd + end.size();
  }
  return true;
}

}  // namespace

bool ParseInput(const std::string& data, std::vector<Blob>& blobs, std::string& error) {
  blobs.clear();
  if (data.empty()) {
    error = "empty input";
    return false;
  }
  if (data.find("-----BEGIN ") != std::string::npos) {
    if (!ParsePem(data, blobs, error)) return false;
    if (blobs.empty()) {
      error = "no complete PEM block";
      return false;
    }
    return true;
  }
  if (IsBase64Text(data)) {
    Blob blob;
    if (!Base64Decode(data, blob.der) || blob.der.empty()) {
      error = "Base64 text ends in an incomplete group";
      return false;
    }
    blobs.push_back(std::move(blob));
    return true;
  }
  blobs.push_back(Blob{std::string(), data});
  return true;
}

}  // namespace kvtool
