#include "tools/dorvanectl/delete_preview.h"

#include <windows.h>

#include <cstdio>
#include <optional>
#include <vector>

#include "tools/dorvanectl/path_guard.h"
#include "util/file_ops.h"

namespace dorvane::ctl {

namespace {

using Kind = DeleteStep;

struct Step {
  std::string path;
  Kind kind;
};

const char* KindName(Kind kind) {
  switch (kind) {
    case Kind::kFile: return "file";
    case Kind::kFolder: return "folder";
    case Kind::kLink: return "link";
    case Kind::kKeptLink: return "keep";
  }
  return "";
}

std::string Count(size_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

struct Counts {
  size_t files = 0, folders = 0, links = 0, kept_links = 0;

  explicit Counts(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      switch (step.kind) {
        case Kind::kFile: ++files; break;
        case Kind::kFolder: ++folders; break;
        case Kind::kLink: ++links; break;
        case Kind::kKeptLink: ++kept_links; break;
      }
    }
  }
};

void PrintJsonPreview(const std::vector<Step>& steps, const std::string& note) {
  nlohmann::json deleted = nlohmann::json::array();
  nlohmann::json kept = nlohmann::json::array();
  for (const Step& step : steps) {
    const bool keep = step.kind == Kind::kKeptLink;
    (keep ? kept : deleted)
        .push_back({{"path", Text(step.path)}, {"kind", keep ? "link" : KindName(step.kind)}});
  }
  const Counts counts(steps);
  PrintJson({{"result", nullptr},
             {"would_delete", deleted},
             {"would_keep", kept},
             {"files", counts.files},
             {"folders", counts.folders},
             {"links", counts.links},
             {"kept_links", counts.kept_links},
             {"needs_force", note.empty() ? nlohmann::json(nullptr) : Text(note)}});
}

// The steps on stdout, "kind path" one a line; the summary and the note on
// stderr, so that the list can be read as it stands.
void PrintTextPreview(const std::vector<Step>& steps, const std::string& summary_start,
                      const std::string& note) {
  std::string lines;
  for (const Step& step : steps) {
    char kind[8];
    std::snprintf(kind, sizeof kind, "%-6s", KindName(step.kind));
    lines += std::string(kind) + " " + Shown(step.path) + "\n";
  }
  PrintRaw(lines);
  const Counts counts(steps);
  std::string summary = summary_start + Count(counts.files, "file", "files") + ", " +
                        Count(counts.folders, "folder", "folders") + " and " +
                        Count(counts.links, "link", "links");
  if (counts.kept_links > 0) {
    summary += "; would keep " + Count(counts.kept_links, "link", "links") +
               " that cannot be removed alone here, and the folders holding them";
  }
  std::fprintf(stderr, "dorvanectl: %s; nothing was deleted\n", summary.c_str());
  if (!note.empty()) std::fprintf(stderr, "dorvanectl: note: %s\n", note.c_str());
}

}  // namespace

int PreviewDeleteDir(const Common& common, const std::string& folder) {
  // DeleteDir removes nothing from a missing folder or a file.
  const DWORD attributes = ::GetFileAttributesA(folder.c_str());
  const bool walkable =
      attributes != INVALID_FILE_ATTRIBUTES &&
      (attributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0;
  std::vector<Step> steps;
  if (walkable) {
    WalkDeleteDir(folder, [&steps](DeleteStep kind, const std::string& path) {
      steps.push_back({path, kind});
    });
  }
  // A dry run touches nothing, so it runs on a protected folder too, and says
  // what the deletion would need.
  const std::optional<Refusal> refusal = FirstRefusal(DeleteDirFolders(folder));
  const std::string note =
      refusal ? "delete-dir would need --force to delete from " + refusal->Reason() + "."
              : std::string();
  if (common.json) {
    PrintJsonPreview(steps, note);
  } else {
    PrintTextPreview(steps,
                     walkable ? "dry run: would delete "
                              : "dry run: " + folder + " is no folder; would delete ",
                     note);
  }
  return walkable ? kOk : kFailed;
}

}  // namespace dorvane::ctl
