// Model files: the format of a path, files opened, read whole and written.
#include <qel/io/modelfile.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

#include <qel/io/filemodel.h>

namespace {

bool EndsWithNoCase(const std::string& s, const char* suffix) {
  std::string t(suffix);
  if (s.size() < t.size()) return false;
  for (size_t i = 0; i < t.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - t.size() + i])) != t[i]) return false;
  return true;
}

QelFileFormat Resolve(QelFileFormat format, const std::string& path) {
  return format == QelFileFormat::Auto ? QelFileFormatOf(path) : format;
}

}  // namespace

QelFileFormat QelFileFormatOf(const std::string& path) {
  if (EndsWithNoCase(path, ".mps")) return QelFileFormat::Mps;
  if (EndsWithNoCase(path, ".lp")) return QelFileFormat::Lp;
  throw QelException(("cannot tell the format of \"" + path + "\" (use .mps or .lp)").c_str(), 0);
}

void QelWriteModel(const QelModel& model, std::ostream& out, QelFileFormat format,
                   QelWriteOptions* options) {
  if (format == QelFileFormat::Auto || format == QelFileFormat::FixedMps)
    throw QelWrongUsage("QelWriteModel: a stream needs the format MPS or LP");
  QelFileModel file = QelFlattenModel(model, format, options);
  if (format == QelFileFormat::Lp)
    QelWriteLp(file, out);
  else
    QelWriteMps(file, out);
}

void QelWriteModel(const QelModel& model, const std::string& path, QelFileFormat format,
                   QelWriteOptions* options) {
  format = Resolve(format, path);
  if (format == QelFileFormat::FixedMps)
    throw QelWrongUsage("QelWriteModel: fixed MPS is read only; write free MPS");
  // Everything is checked before the file is opened: a refused model leaves
  // no file behind.
  QelFileModel file = QelFlattenModel(model, format, options);
  std::ofstream out(path, std::ios::binary);
  if (!out) throw QelException(("cannot open \"" + path + "\" for writing").c_str(), 0);
  if (format == QelFileFormat::Lp)
    QelWriteLp(file, out);
  else
    QelWriteMps(file, out);
  out.close();
  if (!out) {
    std::remove(path.c_str());
    throw QelException(("cannot write \"" + path + "\"").c_str(), 0);
  }
}

namespace {

// Parses `text`, then lets it go before the model is built: the flat form
// holds copies of the names, and the text is the largest piece of memory a
// read holds.
QelModel ReadText(QelEnv env, std::string&& text, QelFileFormat format, const std::string& name,
                  QelModelFileCounts* counts = nullptr) {
  QelFileModel file = format == QelFileFormat::Lp
                          ? QelParseLp(text, name)
                          : QelParseMps(text, name, format == QelFileFormat::FixedMps);
  std::string().swap(text);
  if (counts != nullptr) {
    counts->rows = static_cast<long>(file.rows.size());
    counts->columns = static_cast<long>(file.columns.size());
    counts->integers = 0;
    for (const QelFileColumn& c : file.columns)
      if (c.type != QelVarType::Float) ++counts->integers;
    counts->nonzeros = static_cast<long>(file.rowTerms.size());
    counts->sets = static_cast<long>(file.sos.size());
  }
  return QelBuildModel(env, file);
}

}  // namespace

QelModel QelReadModel(QelEnv env, std::istream& in, QelFileFormat format,
                      const std::string& fileName) {
  if (format == QelFileFormat::Auto) throw QelWrongUsage("QelReadModel: a stream needs a format");
  std::ostringstream all;
  all << in.rdbuf();
  return ReadText(env, all.str(), format, fileName);
}

QelModel QelReadModel(QelEnv env, const std::string& path, QelFileFormat format,
                      QelModelFileCounts* counts) {
  format = Resolve(format, path);
  std::ifstream in(path, std::ios::binary);
  if (!in) throw QelException(("cannot open \"" + path + "\"").c_str(), 0);
  in.seekg(0, std::ios::end);
  std::streamoff size = in.tellg();
  in.seekg(0, std::ios::beg);
  std::string text;
  if (size > 0) {
    text.resize(static_cast<size_t>(size));
    in.read(text.data(), size);
    text.resize(static_cast<size_t>(in.gcount()));
  }
  return ReadText(env, std::move(text), format, path, counts);
}
