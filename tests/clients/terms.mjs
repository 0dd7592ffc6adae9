// The client libraries in the terms of session.mjs, whatever they are connected by.
import { ResourceUpdatedNotificationSchema } from '@modelcontextprotocol/sdk/types.js';

async function connected(client, transport) {
  const errors = [];
  client.onerror = (error) => errors.push(String(error));
  await client.connect(transport);
  return { client, errors };
}

// The one of the revisions with `initialize`.
export const sdkTerms = async (client, transport) => ({
  ...(await connected(client, transport)),
  call: (params, options) => client.callTool(params, undefined, options),
  onUpdated: (handler) => client.setNotificationHandler(ResourceUpdatedNotificationSchema, handler),
  subscribe: (uri) => client.subscribeResource({ uri }),
});

// The one of all revisions.
export const clientTerms = async (client, transport) => ({
  ...(await connected(client, transport)),
  call: (params, options) => client.callTool(params, options),
  onUpdated: (handler) => client.setNotificationHandler('notifications/resources/updated', handler),
  subscribe: (uri) =>
    client.getProtocolEra() === 'modern'
      ? client.listen({ resourceSubscriptions: [uri] })
      : client.subscribeResource({ uri }),
});
