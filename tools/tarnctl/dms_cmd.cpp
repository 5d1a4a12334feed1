// tarnctl dms import|list|show|versions|export|related: the local document store from the
// command line. Tables for people by default, --json for scripts. Imports print each new
// reference, which is what the gateway's clients send back as doc_ref.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "dms_local/doc_ref.h"
#include "dms_local/file_copy.h"
#include "dms_local/local_cache.h"
#include "dms_local/local_store.h"
#include "tarnctl_commands.h"

namespace tarn {
namespace {

struct dms_options {
  std::vector<std::string> files;
  std::string ref;
  std::string dir;
  std::optional<std::string> folder;
  std::string library;
  bool json = false;
  bool force = false;
};

void print_json(const nlohmann::json& value) {
  std::cout << value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

nlohmann::json to_json(const stored_version& v) {
  return {{"ref", v.ref()},           {"library", v.library},        {"number", v.number},
          {"version", v.version},     {"versions", v.version_count}, {"name", v.name},
          {"extension", v.extension}, {"folder", v.folder},          {"size", v.size},
          {"created", v.created}};
}

void print_json(const std::vector<stored_version>& versions) {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& v : versions) out.push_back(to_json(v));
  print_json(out);
}

// Terminal columns of one character: 0 for combining marks, 2 for East Asian wide ones.
size_t char_width(uint32_t cp) {
  if ((cp >= 0x0300 && cp <= 0x036F) || (cp >= 0x200B && cp <= 0x200F)) return 0;
  const bool wide = (cp >= 0x1100 && cp <= 0x115F) || (cp >= 0x2E80 && cp <= 0xA4CF) ||
                    (cp >= 0xAC00 && cp <= 0xD7A3) || (cp >= 0xF900 && cp <= 0xFAFF) ||
                    (cp >= 0xFE30 && cp <= 0xFE4F) || (cp >= 0xFF00 && cp <= 0xFF60) ||
                    (cp >= 0xFFE0 && cp <= 0xFFE6) || (cp >= 0x1F300 && cp <= 0x1F64F) ||
                    (cp >= 0x1F900 && cp <= 0x1F9FF) || (cp >= 0x20000 && cp <= 0x3FFFD);
  return wide ? 2 : 1;
}

// Names are checked UTF-8, so the decoding needs no error path.
size_t text_width(const std::string& text) {
  size_t width = 0;
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t len = lead < 0x80 ? 1 : (lead >> 5) == 6 ? 2 : (lead >> 4) == 14 ? 3 : 4;
    uint32_t cp = len == 1 ? lead : lead & (0x7F >> len);
    for (size_t k = 1; k < len && i + k < text.size(); ++k)
      cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    width += char_width(cp);
    i += len;
  }
  return width;
}

// Columns padded to their widest cell, two blanks apart; the last one isn't padded.
void print_table(const std::vector<std::string>& head,
                 const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(head.size());
  for (size_t i = 0; i < head.size(); ++i) widths[i] = text_width(head[i]);
  for (const auto& row : rows)
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], text_width(row[i]));
  auto print_row = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - text_width(row[i]) + 2, ' ');
    }
    std::cout << line << "\n";
  };
  print_row(head);
  for (const auto& row : rows) print_row(row);
}

std::string human_size(int64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  int unit = -1;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string shown_folder(const std::string& folder) { return folder.empty() ? "-" : folder; }

class dms_command {
 public:
  dms_command(const char* verb, const dms_options& opt) : verb_(verb), opt_(opt) {}

  int import_files();
  int list();
  int show();
  int versions();
  int export_to();
  int related();

 private:
  void error(const std::string& text) const {
    std::cerr << "tarnctl dms " << verb_ << ": " << text << "\n";
  }
  int usage(const std::string& text) const {
    error(text);
    return kExitUsage;
  }
  int failed(const std::string& text) const {
    error(text);
    return kExitFailed;
  }
  // False (reported) when --folder names no valid folder.
  bool folder_ok() const {
    if (!opt_.folder || valid_folder(*opt_.folder)) return true;
    error("\"" + *opt_.folder + "\" is no folder name (printable UTF-8, up to 255 bytes)");
    return false;
  }
  // The library of --library, or the default one; nullopt (reported) when misspelt.
  std::optional<std::string> library() const {
    auto library = library_of_connection(opt_.library);
    if (!library)
      error("\"" + opt_.library + "\" is no library name (a-z, 0-9, '-', '_', up to 64)");
    return library;
  }
  // Opens the library of the command; *code says why when null. A missing default library
  // reads as empty when `missing_is_empty`.
  std::unique_ptr<local_store> open_store(const std::string& library, bool create,
                                          bool missing_is_empty, int* code) const {
    store_status status;
    std::string why;
    auto store = local_store::open(library, create, &status, &why);
    *code = kExitFailed;
    if (!store) {
      if (status == store_status::not_found && missing_is_empty && library == kDefaultLibrary) {
        *code = kExitOk;
      } else if (status == store_status::not_found) {
        std::string known;
        for (const auto& name : local_store::libraries())
          known += (known.empty() ? "" : ", ") + name;
        error(why + (known.empty() ? "; there is no library yet" : "; libraries: " + known));
      } else {
        error(why);
      }
    }
    return store;
  }
  // The document named on the command line, latest version unless the reference names one.
  std::optional<stored_version> find_ref(std::unique_ptr<local_store>* store, int* code) const;

  const char* verb_;
  const dms_options& opt_;
};

int dms_command::import_files() {
  if (!folder_ok()) return kExitUsage;
  auto library = this->library();
  if (!library) return kExitUsage;
  int code;
  auto store = open_store(*library, true, false, &code);
  if (!store) return code;

  // Progress goes to a terminal only, so that scripts read nothing but the references.
  const bool progress = opt_.files.size() > 1 && ::isatty(STDERR_FILENO) == 1;
  auto last_shown = std::chrono::steady_clock::time_point();
  nlohmann::json imported = nlohmann::json::array();
  int64_t bytes = 0;
  size_t failed = 0;
  for (size_t i = 0; i < opt_.files.size(); ++i) {
    const std::filesystem::path file = opt_.files[i];
    new_content content;
    content.source = file;
    std::tie(content.name, content.extension) = split_file_name(file.filename().string());
    content.folder = opt_.folder.value_or("");
    stored_version v;
    std::string why;
    if (store->add_document(content, std::nullopt, &v, &why) != store_status::ok) {
      if (progress) std::cerr << "\n";
      error("can't import " + file.string() + ": " + why);
      ++failed;
      continue;
    }
    bytes += v.size;
    if (opt_.json) {
      nlohmann::json entry = to_json(v);
      entry["source"] = file.string();
      imported.push_back(std::move(entry));
    } else {
      std::cout << v.ref() << "\n";
    }
    const auto now = std::chrono::steady_clock::now();
    if (progress &&
        (now - last_shown > std::chrono::milliseconds(200) || i + 1 == opt_.files.size())) {
      std::cerr << "\rimported " << (i + 1 - failed) << " of " << opt_.files.size() << " files ("
                << human_size(bytes) << ")" << std::flush;
      last_shown = now;
    }
  }
  if (progress) std::cerr << "\n";
  if (opt_.json) print_json(imported);
  if (failed > 0 && opt_.files.size() > 1)
    error(std::to_string(failed) + " of " + std::to_string(opt_.files.size()) +
          " files not imported");
  return failed == 0 ? kExitOk : kExitFailed;
}

int dms_command::list() {
  if (!folder_ok()) return kExitUsage;
  auto library = this->library();
  if (!library) return kExitUsage;
  int code;
  std::vector<stored_version> documents;
  if (auto store = open_store(*library, false, true, &code)) {
    std::string why;
    if (store->list(opt_.folder, &documents, &why) != store_status::ok) return failed(why);
  } else if (code != kExitOk) {
    return code;
  }
  if (opt_.json) {
    print_json(documents);
    return kExitOk;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& v : documents)
    rows.push_back({v.ref(), v.file_name(), shown_folder(v.folder), std::to_string(v.version_count),
                    human_size(v.size), v.created});
  print_table({"REF", "NAME", "FOLDER", "VERSIONS", "SIZE", "CREATED"}, rows);
  return kExitOk;
}

std::optional<stored_version> dms_command::find_ref(std::unique_ptr<local_store>* store,
                                                    int* code) const {
  auto library = this->library();
  if (!library) {
    *code = kExitUsage;
    return std::nullopt;
  }
  auto key = parse_doc_ref(opt_.ref, opt_.library);
  if (!key) {
    *code = usage("\"" + opt_.ref + "\" is no document reference" +
                  (opt_.library.empty() ? "" : " of library \"" + opt_.library + "\"") +
                  " (N.V, N for the latest version, or LIBRARY:N.V)");
    return std::nullopt;
  }
  *store = open_store(key->library, false, false, code);
  if (!*store) return std::nullopt;
  stored_version v;
  std::string why;
  if ((*store)->find(key->number, key->version, &v, &why) != store_status::ok) {
    *code = failed(why);
    return std::nullopt;
  }
  return v;
}

int dms_command::show() {
  int code;
  std::unique_ptr<local_store> store;
  auto v = find_ref(&store, &code);
  if (!v) return code;
  std::vector<related_document> links;
  std::string why;
  if (store->related(v->number, &links, &why) != store_status::ok)
    return failed("can't read the documents related to " + v->ref() + ": " + why);
  const std::string content = store->content_path(*v).string();
  if (opt_.json) {
    nlohmann::json out = to_json(*v);
    out["content"] = content;
    out["related"] = links.size();
    print_json(out);
    return kExitOk;
  }
  const std::vector<std::pair<std::string, std::string>> lines = {
      {"Ref", v->ref()},
      {"Library", v->library},
      {"Number", std::to_string(v->number)},
      {"Version", std::to_string(v->version) + " of " + std::to_string(v->version_count)},
      {"Name", v->name},
      {"Extension", v->extension},
      {"Folder", shown_folder(v->folder)},
      {"Size", std::to_string(v->size) + " bytes"},
      {"Created", v->created},
      {"Content", content},
      {"Related", std::to_string(links.size())},
  };
  for (const auto& [label, value] : lines)
    std::cout << label << ":" << std::string(11 - label.size(), ' ') << value << "\n";
  return kExitOk;
}

int dms_command::versions() {
  int code;
  std::unique_ptr<local_store> store;
  auto v = find_ref(&store, &code);
  if (!v) return code;
  std::vector<stored_version> all;
  std::string why;
  if (store->versions(v->number, &all, &why) != store_status::ok) return failed(why);
  if (opt_.json) {
    print_json(all);
    return kExitOk;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& each : all)
    rows.push_back({each.ref(), each.file_name(), human_size(each.size), each.created});
  print_table({"REF", "NAME", "SIZE", "CREATED"}, rows);
  return kExitOk;
}

int dms_command::related() {
  int code;
  std::unique_ptr<local_store> store;
  auto v = find_ref(&store, &code);
  if (!v) return code;
  std::vector<related_document> links;
  std::string why;
  if (store->related(v->number, &links, &why) != store_status::ok) return failed(why);
  if (opt_.json) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto& link : links) {
      nlohmann::json entry = to_json(link.latest);
      entry["relation"] = link.relation;
      out.push_back(std::move(entry));
    }
    print_json(out);
    return kExitOk;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& link : links)
    rows.push_back({link.relation, link.latest.ref(), link.latest.file_name(),
                    shown_folder(link.latest.folder)});
  print_table({"RELATION", "REF", "NAME", "FOLDER"}, rows);
  return kExitOk;
}

int dms_command::export_to() {
  std::error_code ec;
  if (!std::filesystem::is_directory(opt_.dir, ec))
    return failed("no folder " + opt_.dir + (ec ? ": " + ec.message() : std::string()));
  int code;
  std::unique_ptr<local_store> store;
  auto v = find_ref(&store, &code);
  if (!v) return code;
  const std::filesystem::path target =
      std::filesystem::path(opt_.dir) / safe_file_name(v->name, v->extension);
  if (!opt_.force && std::filesystem::exists(target, ec))
    return failed(target.string() + " exists already (--force replaces it)");
  // Copied beside the target and renamed, so that a failure never leaves half a file there.
  const std::filesystem::path partial =
      target.parent_path() / ("." + target.filename().string() + "." + random_hex(4) + ".part");
  copy_result copied = copy_into_new_file(store->content_path(*v), partial, true);
  if (!copied.ok) return failed("can't export " + v->ref() + ": " + copied.text);
  if (copied.size != v->size) {
    ::unlink(partial.c_str());
    return failed("can't export " + v->ref() + ": its content holds " +
                  std::to_string(copied.size) + " bytes, the catalogue says " +
                  std::to_string(v->size));
  }
  // Without --force, a file that appeared since the check above is still never replaced.
  const unsigned flags = opt_.force ? 0 : RENAME_NOREPLACE;
  if (::renameat2(AT_FDCWD, partial.c_str(), AT_FDCWD, target.c_str(), flags) != 0) {
    const int error_code = errno;
    ::unlink(partial.c_str());
    return failed("can't write " + target.string() + ": " + std::strerror(error_code));
  }
  if (opt_.json) {
    nlohmann::json out = to_json(*v);
    out["path"] = target.string();
    print_json(out);
  } else {
    std::cout << target.string() << "\n";
  }
  return kExitOk;
}

}  // namespace

void add_dms_command(CLI::App& app, int* exit_code) {
  auto* dms = app.add_subcommand(
      "dms",
      "The local document store (~/.local/share/vantu/dms/). A reference is N.V (document N, "
      "version V), N for the latest version, or LIBRARY:N.V outside the default library.");
  dms->require_subcommand(0, 1);
  dms->callback([dms, exit_code] {
    if (dms->get_subcommands().empty()) {
      std::cerr << "tarnctl dms: name one of import, list, show, versions, export, related "
                   "(see tarnctl dms --help)\n";
      *exit_code = kExitUsage;
    }
  });
  auto options = std::make_shared<dms_options>();
  auto add_common = [&](CLI::App* cmd) {
    cmd->add_option("--library", options->library,
                    "The library (default: \"default\"); import creates it");
    cmd->add_flag("--json", options->json, "Print JSON for scripts instead of a table");
  };
  auto add_ref = [&](CLI::App* cmd) {
    cmd->add_option("ref", options->ref, "Document reference: N.V, N or LIBRARY:N.V")->required();
  };
  auto run = [options, exit_code](const char* verb, int (dms_command::*action)()) {
    return [options, exit_code, verb, action] {
      dms_command command(verb, *options);
      *exit_code = (command.*action)();
    };
  };

  auto* import = dms->add_subcommand(
      "import", "Store files as new documents; prints each new reference, one per line.");
  import->add_option("files", options->files, "Files to import")->required();
  import->add_option("--folder", options->folder, "Folder of the new documents");
  add_common(import);
  import->callback(run("import", &dms_command::import_files));

  auto* list = dms->add_subcommand("list", "List the documents, each with its latest version.");
  list->add_option("--folder", options->folder, "Only the documents of this folder");
  add_common(list);
  list->callback(run("list", &dms_command::list));

  auto* show = dms->add_subcommand("show", "Show one document version.");
  add_ref(show);
  add_common(show);
  show->callback(run("show", &dms_command::show));

  auto* versions = dms->add_subcommand("versions", "List every version of a document.");
  add_ref(versions);
  add_common(versions);
  versions->callback(run("versions", &dms_command::versions));

  auto* export_cmd = dms->add_subcommand(
      "export", "Copy a document version into a folder as NAME.EXTENSION; prints the path.");
  add_ref(export_cmd);
  export_cmd->add_option("dir", options->dir, "Folder to copy into")->required();
  export_cmd->add_flag("--force", options->force, "Replace a file of that name");
  add_common(export_cmd);
  export_cmd->callback(run("export", &dms_command::export_to));

  auto* related = dms->add_subcommand(
      "related", "List the documents linked to a document: its source, and those made from it.");
  add_ref(related);
  add_common(related);
  related->callback(run("related", &dms_command::related));
}

}  // namespace tarn
