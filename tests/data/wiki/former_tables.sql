-- Makes the tables of a database what they were until words were indexed by the first search after a save.
DROP TABLE page_claims;
DROP TRIGGER rest_of_new;
DROP TRIGGER rest_of_changed;
DROP TABLE rests_on;
DROP TABLE page_versions;
DROP TABLE own_lists;
DROP TABLE cited_by;
DROP TABLE cited_texts;
ALTER TABLE passages RENAME TO now_passages;
ALTER TABLE vectors RENAME TO now_vectors;
ALTER TABLE chunks RENAME TO now_chunks;
DROP INDEX chunks_by_model;
CREATE TABLE passages (hash TEXT NOT NULL PRIMARY KEY, text TEXT NOT NULL) STRICT;
CREATE TABLE vectors (hash TEXT NOT NULL REFERENCES passages (hash) ON DELETE CASCADE, model TEXT NOT NULL,
  vector BLOB NOT NULL, PRIMARY KEY (hash, model)) STRICT;
CREATE TABLE chunks (page_key INTEGER NOT NULL REFERENCES pages (page_key) ON DELETE CASCADE,
  position INTEGER NOT NULL, section TEXT NOT NULL, hash TEXT NOT NULL REFERENCES passages (hash),
  model TEXT NOT NULL, citations TEXT NOT NULL, PRIMARY KEY (page_key, position)) STRICT, WITHOUT ROWID;
CREATE INDEX chunks_by_hash ON chunks (hash, page_key);
CREATE INDEX chunks_by_model ON chunks (model);
INSERT INTO passages SELECT hash, text FROM now_passages;
INSERT INTO vectors SELECT hash, model, vector FROM now_vectors JOIN now_passages USING (passage_key);
INSERT INTO chunks SELECT page_key, position, section, hash, model, citations
  FROM now_chunks JOIN now_passages USING (passage_key);
DROP TABLE now_chunks;
DROP TABLE now_vectors;
DROP TABLE now_passages;
DROP TABLE due_words;
PRAGMA user_version = 4;
